#include "station/display/display.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "station/base/text.h"
#include "station/run/output.h"

namespace station {
namespace {

class PlainDisplay : public Display {
public:
    explicit PlainDisplay(int boards) : boards_(boards) {}

    void boardConnects(const RunRecord &run) override {
        if (boards_ != 1) print(run, "connected from " + run.peer);
    }
    void asks(const RunRecord &run, size_t, const std::string &prompt) override {
        print(run, "asks: " + oneLine(prompt));
    }
    void stepEnds(const RunRecord &run, size_t step) override { print(run, describeStep(run.steps[step])); }
    void boardEnds(const RunRecord &run) override {
        const bool told = boards_ == 1 && run.failure.empty();  // by the steps
        if (!told) print(run, endLine(run));
        print(shownReplies(run, boards_ != 1));
    }
    void placeHeld(const Place &place, bool held) override {
        print(nameOf(place) + (held ? "  held: it takes no board until it is released\n" : "  released\n"));
    }
    void strangerRefused(const std::string &peer, const std::string &why) override {
        print(oneLine(fmt::format("stranger {} refused: {}", peer, why)) + "\n");
    }
    void lineWaits(const std::string &why) override {
        print(why.empty() ? "boards are taken again\n" : "no new boards are taken: " + oneLine(why) + "\n");
    }
    void lineStops() override { print("stopping: what runs ends first\n"); }
    void trouble(const std::string &text) override { print(oneLine(text) + "\n"); }

    std::string ask(const RunRecord &, size_t, const std::string &, const std::string &,
                    std::chrono::steady_clock::time_point, const Needless &) override {
        throw std::runtime_error("there is no terminal where an operator could be asked");
    }

private:
    void print(const RunRecord &run, const std::string &text) {
        print(boards_ == 1 ? text + "\n" : fmt::format("{}  {}\n", nameOf(run.place), text));
    }
    void print(const std::string &text) { output_.put(text); }

    const int boards_;
    Output output_;
};

}  // namespace

std::unique_ptr<Display> makeDisplay(int boards) {
    if (isatty(STDOUT_FILENO) == 0) return std::make_unique<PlainDisplay>(boards);
    const char *const noColour = std::getenv("NO_COLOR");
    return makeTerminal(boards, noColour == nullptr || *noColour == '\0');
}

std::string nameOf(const Place &place) {
    return place.name == std::to_string(place.number) ? "board " + place.name : place.name;
}

std::string summaryOf(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    if (failed != nullptr) {
        return fmt::format("step {}/{} {}: {}", failed - run.steps.data() + 1, run.steps.size(), failed->title,
                           failed->failure);
    }
    if (!run.failure.empty()) return run.failure;
    return run.passed() ? fmt::format("{} steps", run.steps.size()) : "ended before all steps were run";
}

std::string hintOf(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    return failed == nullptr ? "" : failed->hint;
}

std::string endLine(const RunRecord &run) {
    const std::string hint = hintOf(run);
    return oneLine(fmt::format("{}  {}{:.1f} s  {}{}", run.passed() ? "PASS" : "FAIL",
                               run.unit.empty() ? "" : run.unit + "  ",
                               std::chrono::duration<double>(run.end - run.start).count(), summaryOf(run),
                               hint.empty() ? "" : "  -> " + hint));
}

std::string shownReplies(const RunRecord &run, bool named) {
    std::string text;
    for (const StepResult &step : run.steps) {
        if (!step.show || step.reply.empty()) continue;
        const std::string whose = nameOf(run.place) + (run.unit.empty() ? "" : " " + run.unit);
        text += named ? fmt::format("\n{}: {}\n", whose, oneLine(step.title)) : "\n";
        text += step.reply + "\n";
    }
    return text;
}

}  // namespace station
