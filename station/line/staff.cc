#include "station/line/staff.h"

#include "station/base/text.h"
#include "station/plan/plan.h"

namespace station {
namespace {

// Returns what is wrong with the answer; empty: nothing.
std::string faultOfAnswer(const std::string &answer, const AskWho &ask) {
    if (answer.empty()) return "an answer is needed";
    if (!ask.match || ask.match->find(answer)) return {};
    return "\"" + shorten(answer, kQuoted) + "\" does not look right: scan or type it again";
}

}  // namespace

std::string Staff::at(const RunRecord &run, const AskWho &ask, Operator &people, const Needless &needless) {
    const std::string where = ask.eachPlace ? run.place.name : "";
    const auto known = [&]() -> std::string {
        const Lock lock(mutex_);
        const auto answer = answers_.find(where);
        return answer == answers_.end() || Clock::now() >= answer->second.since + ask.within ? "" : answer->second.name;
    };
    const auto answered = [&] { return known().empty() ? needless() : "somebody has answered"; };
    const auto deadline = Clock::now() + kAnswerTime;
    std::string problem, name;
    while ((name = known()).empty()) try {
            const std::string answer = oneLine(trim(people.ask(run, 0, ask.prompt, problem, deadline, answered)));
            problem = faultOfAnswer(answer, ask);
            const Lock lock(mutex_);
            if (problem.empty()) answers_[where] = {answer, Clock::now()};
        } catch (const std::runtime_error &) {
            if (known().empty()) throw;
        }
    return name;
}

}  // namespace station
