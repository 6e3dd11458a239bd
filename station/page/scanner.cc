#include "station/page/scanner.h"

namespace station {
namespace {

constexpr std::chrono::milliseconds kLook{100};  // whether an answer is still needed

// Returns the picture of the step that runs. What is asked before a board's first step has none.
std::optional<Payload> pictureOf(const RunRecord &run, size_t step) {
    return step < run.steps.size() && run.steps[step].attempts > 0 ? run.steps[step].picture : std::nullopt;
}

}  // namespace

Scanner::Scanner(Floor &floor)
    : floor_(floor),
      asked_(static_cast<uint64_t>(WallClock::now().time_since_epoch() / std::chrono::milliseconds(1))) {}

std::string Scanner::ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                         std::chrono::steady_clock::time_point deadline, const Needless &needless) {
    Lock lock(mutex_);
    Open open{++asked_, {}};
    open_[run.place.number] = &open;
    floor_.asks(run.place, {open.number, prompt, problem, pictureOf(run, step)});
    std::string why;
    while (!open.answer && Clock::now() < deadline && (why = needless()).empty()) answered_.waitFor(lock, kLook);
    open_.erase(run.place.number);
    floor_.asks(run.place, {});
    if (open.answer) return *open.answer;
    throw NoAnswer(why.empty() ? "the operator did not answer in time" : why);
}

std::string Scanner::answer(int place, uint64_t question, const std::string &text) {
    const Lock lock(mutex_);
    const auto open = open_.find(place);
    if (open == open_.end() || open->second->number != question || open->second->answer)
        return "The question was answered meanwhile, or its board has gone.";
    open->second->answer = text;
    answered_.notifyAll();
    return {};
}

}  // namespace station
