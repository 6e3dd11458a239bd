#include "station/plan/review.h"

#include <map>
#include <optional>

#include "station/plan/commands.h"

namespace station {
namespace {

// The plan's course, as far as it has been followed.
struct Course {
    std::vector<Fault> &faults, &warnings;
    bool over = false;                  // the session has ended
    bool rebooting = false;             // the board may be gone at any time
    bool pinged = false;                // this session's reports name what failed
    std::optional<YAML::Mark> reset;    // a factory reset that nothing has waited for
    std::map<int, YAML::Mark> written;  // partitions that nothing has read back

    void warn(const YAML::Mark &mark, const std::string &text) { warnings.push_back({mark, "warning: " + text}); }
};

void followSession(const StepSource &source, Role role, Course &course) {
    const Step &step = source.step;
    if (!step.needsBoard() && !step.reconnect) return;
    if (step.needsBoard() && course.over) {
        course.faults.push_back({source.node.Mark(), "the session has ended before this step: a step that the board "
                                                     "comes back after needs \"reconnect: true\""});
    } else if (step.needsBoard() && course.rebooting) {
        course.warn(source.node.Mark(), "the board may be gone before this step: give the REBOOT "
                                        "\"reconnect: true\", or make it the last step");
    }
    course.over = (role == Role::kEnd || step.closes) && !step.reconnect;
    course.rebooting = role == Role::kReboot && !step.reconnect;
    if (step.reconnect) course.pinged = false;
}

void followRole(const StepSource &source, Role role, Course &course) {
    if (role == Role::kPing) course.pinged = true;
    if (role == Role::kAddress && namesIn(source.step.send).empty()) {
        course.warn(source.node.Mark(), "every board of this plan gets the same MAC address");
    }
    if (role == Role::kReport && source.step.expected && !course.pinged) {
        course.warn(source.node.Mark(), "without a PING of its session before it, the report names no "
                                        "failed check: every board would pass");
    }
    if (role == Role::kReset) course.reset = source.node.Mark();
    if (role == Role::kWait) course.reset.reset();
}

void followFlash(const StepSource &source, Course &course) {
    const Step &step = source.step;
    if (const int partition = partitionOf(step.send); partition > 0) course.written[partition] = source.node.Mark();
    if (takesLong(step.send) && !source.timed) {
        course.warn(source.node.Mark(), "10 s may not be enough for this, and a session that ends then "
                                        "leaves it half done: give a \"timeout\"");
    }
}

void follow(const StepSource &source, Course &course) {
    const Step &step = source.step;
    const Role role = step.kind == Kind::kCommand ? roleOf(step.send) : Role::kPlain;
    followSession(source, role, course);
    if (step.kind == Kind::kVerify) course.written.erase(step.partition);
    if (step.kind != Kind::kCommand) return;
    followRole(source, role, course);
    followFlash(source, course);
}

}  // namespace

void review(const std::vector<StepSource> &steps, std::vector<Fault> &faults, std::vector<Fault> &warnings) {
    Course course{faults, warnings, false, false, false, {}, {}};
    for (const StepSource &source : steps) follow(source, course);
    for (const auto &[partition, mark] : course.written) {
        course.warn(mark, "its OK does not say that it was written: no \"verify\" step reads it back");
    }
    if (course.reset) course.warn(*course.reset, "nothing waits for the end of the reset: send WAITING");
}

}  // namespace station
