#include "station/page/scanner.h"

#include <stdexcept>

namespace station {
namespace {

constexpr std::chrono::milliseconds kLook{100};  // whether an answer is still needed

}  // namespace

std::string Scanner::ask(const RunRecord &run, size_t, const std::string &prompt, const std::string &problem,
                         std::chrono::steady_clock::time_point deadline, const Needless &needless) {
    Lock lock(mutex_);
    Open open{++asked_, {}};
    open_[run.place.number] = &open;
    floor_.asks(run.place, {open.number, prompt, problem});
    std::string why;
    while (!open.answer && Clock::now() < deadline && (why = needless()).empty()) answered_.waitFor(lock, kLook);
    open_.erase(run.place.number);
    floor_.asks(run.place, {});
    if (open.answer) return *open.answer;
    throw std::runtime_error(why.empty() ? "the operator did not answer in time" : why);
}

std::string Scanner::answer(int place, uint64_t question, const std::string &text) {
    const Lock lock(mutex_);
    const auto open = open_.find(place);
    if (open == open_.end()) return "this place asks nothing now";
    if (question != 0 && question != open->second->number) return "the question was answered meanwhile";
    if (open->second->answer) return "it has been answered already";
    open->second->answer = text;
    answered_.notifyAll();
    return {};
}

}  // namespace station
