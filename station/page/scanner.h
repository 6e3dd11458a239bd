#pragma once
// Who answers what a plan asks, when the line has a page: whoever scans or types there.

#include <map>
#include <optional>
#include <string>

#include "station/base/mutex.h"
#include "station/page/floor.h"
#include "station/run/operator.h"

namespace station {

class Scanner : public Operator {
public:
    explicit Scanner(Floor &floor);

    std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                    std::chrono::steady_clock::time_point deadline, const Needless &needless) override;

    // Answers this question of the place and no other: text that was typed for one board must not reach the next.
    // Returns why the answer was not taken; empty: it was.
    std::string answer(int place, uint64_t question, const std::string &text);

private:
    struct Open {
        uint64_t number;
        std::optional<std::string> answer;
    };

    Floor &floor_;
    Mutex mutex_;
    Condition answered_;
    std::map<int, Open *> open_ GUARDED_BY(mutex_);  // by the place's number
    // Of the last question. A page that outlives a station must not answer the next station's questions, so the count
    // starts at the milliseconds since 1970.
    uint64_t asked_ GUARDED_BY(mutex_);
};

}  // namespace station
