#include "station/line/staff.h"

#include "station/base/text.h"

namespace station {
namespace {

constexpr Milliseconds kAnswerTime{3600000};  // as long as for a plan's `ask`

// Returns what is wrong with the answer; empty: nothing.
std::string faultOfAnswer(const std::string &answer, const AskWho &ask) {
    if (answer.empty()) return "an answer is needed";
    if (!ask.match || ask.match->find(answer)) return {};
    return "\"" + shorten(answer, kQuoted) + "\" does not look right: scan or type it again";
}

}  // namespace

std::string Staff::at(const RunRecord &run, const AskWho &ask, Operator &people, const Needless &needless) {
    const std::string where = ask.eachPlace ? run.place.name : "";
    const auto deadline = Clock::now() + kAnswerTime;
    const auto answered = [&] { return known(where, ask.within).empty() ? needless() : "somebody has answered"; };
    std::string problem, name;
    while ((name = known(where, ask.within)).empty()) try {
            const std::string answer = oneLine(trim(people.ask(run, 0, ask.prompt, problem, deadline, answered)));
            problem = faultOfAnswer(answer, ask);
            const Lock lock(mutex_);
            if (problem.empty()) answers_[where] = {answer, Clock::now()};
        } catch (const std::runtime_error &) {
            if (known(where, ask.within).empty()) throw;
        }
    return name;
}

std::string Staff::known(const std::string &where, Milliseconds within) const {
    const Lock lock(mutex_);
    const auto answer = answers_.find(where);
    return answer == answers_.end() || Clock::now() >= answer->second.since + within ? "" : answer->second.name;
}

}  // namespace station
