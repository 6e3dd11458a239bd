#pragma once
// Checks that need the whole plan: steps that come too late, and steps that are missing.

#include <map>
#include <optional>

#include "station/plan/plan.h"
#include "station/plan/yaml.h"

namespace station {

// Follows the steps of a plan in their order. Adds a fault for each that cannot work where it stands, and a warning for
// what is probably a mistake, such as a partition that is flashed and never read back.
class Course {
public:
    Course(Faults &faults, Faults &warnings) : faults_(faults), warnings_(warnings) {}

    // `mark`: where the step stands. `timed`: the plan sets its timeout.
    void follow(const Step &step, const YAML::Mark &mark, bool timed);
    void end();

private:
    void followSession(const Step &step, const YAML::Mark &mark);
    void warn(const YAML::Mark &mark, const std::string &text);

    Faults &faults_, &warnings_;
    bool over_ = false;                  // the session has ended
    bool rebooting_ = false;             // the board may be gone at any time
    bool pinged_ = false;                // this session's reports name what failed
    std::optional<YAML::Mark> reset_;    // a factory reset that nothing has waited for
    std::map<int, YAML::Mark> written_;  // partitions that nothing has read back
};

}  // namespace station
