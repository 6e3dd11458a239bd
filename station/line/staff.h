#pragma once
// Asks who works at the line, or at each of its places, once a shift.

#include <map>
#include <optional>
#include <string>

#include "station/base/mutex.h"
#include "station/plan/expectation.h"
#include "station/run/operator.h"

namespace station {

struct AskWho {
    std::string prompt;               // empty: nobody is asked
    std::optional<Expression> match;  // of the answer
    Milliseconds within{8 * 3600000};
    bool eachPlace = false;  // else one answer is for all places
};

class Staff {
public:
    // Returns who works at the run's place. Asks when nobody has said so within the time, and again until the answer is
    // right. An answer at another place counts, unless each place has its own. Throws what `people` throws.
    std::string at(const RunRecord &run, const AskWho &ask, Operator &people, const Needless &needless);

private:
    struct Answer {
        std::string name;
        Clock::time_point since{};
    };

    std::string known(const std::string &where, Milliseconds within) const;

    mutable Mutex mutex_;
    std::map<std::string, Answer> answers_ GUARDED_BY(mutex_);  // by the place's name; "": the line's
};

}  // namespace station
