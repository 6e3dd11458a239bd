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
    std::string prompt;                // the question; empty: nobody is asked
    std::optional<Expression> match;   // of the answer
    Milliseconds within{8 * 3600000};  // after this time it is asked again
    bool eachPlace = false;            // each place asks for itself; otherwise one answer is for all
};

class Staff {
public:
    // Returns who works at the run's place. Asks if the last answer is too old, and repeats the question until the
    // answer is right. An answer at another place counts, too, unless each place asks for itself. Throws what `people`
    // throws.
    std::string at(const RunRecord &run, const AskWho &ask, Operator &people, const Needless &needless);

private:
    struct Answer {
        std::string name;
        Clock::time_point since{};
    };

    Mutex mutex_;
    std::map<std::string, Answer> answers_ GUARDED_BY(mutex_);  // by the place's name; "": the line's
};

}  // namespace station
