#pragma once
// Asks a plan's questions on the page, where operators scan or type the answers.

#include <map>
#include <optional>
#include <string>

#include "station/base/mutex.h"
#include "station/page/floor.h"
#include "station/run/operator.h"

namespace station {

class Scanner : public Operator {
public:
    // `floor` shows the questions and must outlive this.
    explicit Scanner(Floor &floor);

    std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                    std::chrono::steady_clock::time_point deadline, const Needless &needless) override;

    // Gives an answer to this question of the place and to no other: text that was typed for one board must not reach
    // the next. Returns why the answer was refused; empty when it was taken.
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
    // The number of the last question. A browser that was open before the station restarted must not answer a new
    // question by an old number, so the count starts at the milliseconds since 1970.
    uint64_t asked_ GUARDED_BY(mutex_);
};

}  // namespace station
