#include "station/cli/terminal.h"

#include <fmt/format.h>
#include <poll.h>
#include <re2/re2.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>

#include "station/base/mutex.h"
#include "station/base/text.h"

namespace station {
namespace {

constexpr Milliseconds kTyping{100};
constexpr size_t kLongestAnswer = 4096;  // bytes of a line, as a terminal limits it

// Returns the text with its line ends and colours, without other control sequences: they could move the cursor or erase
// what is shown.
std::string harmless(const std::string &text) {
    static const re2::RE2 kControl("(\\x1B\\[[0-9;]*m|\\r?\\n|\\t)|\\pC");
    std::string shown = asUtf8(text);
    re2::RE2::GlobalReplace(&shown, kControl, "\\1");
    return shown + "\033[0m";
}

// Returns the replies that the plan shows, as the board sent them. `named`: precedes each with its place.
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

void needAnswer(Clock::time_point deadline, const Needless &needless) {
    if (const std::string why = needless(); !why.empty()) throw NoAnswer(why);
    if (Clock::now() >= deadline) throw NoAnswer("the operator did not answer in time");
}

class Lines : public Terminal {
public:
    Lines(Output &output, int boards) : output_(output), boards_(boards), watched_(isatty(STDOUT_FILENO) != 0) {}

    void boardConnects(const RunRecord &run) override {
        if (boards_ != 1) print(run, "connected from " + run.peer);
    }

    void stepStarts(const RunRecord &run, size_t step) override {
        if (boards_ == 1) show(fmt::format("{}/{} {}", step + 1, run.steps.size(), oneLine(run.steps[step].title)));
    }

    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override {
        if (boards_ != 1) return;
        show(fmt::format("{}/{} {:3} % {}", step + 1, run.steps.size(), sent * 100 / std::max<uint64_t>(total, 1),
                         oneLine(run.steps[step].title)));
    }

    void asks(const RunRecord &run, size_t, const std::string &prompt) override {
        print(run, "asks: " + oneLine(prompt));
    }

    void stepEnds(const RunRecord &run, size_t step) override {
        release(run.place.number);
        print(run, describeStep(run.steps[step]));
    }

    void boardEnds(const RunRecord &run) override {
        release(run.place.number);
        const bool told = boards_ == 1 && run.failure.empty() && !run.again();  // by the steps' lines
        if (!told) print(run, endLine(run));
        const std::string replies = shownReplies(run, boards_ != 1);
        if (!replies.empty()) print(watched_ ? harmless(replies) : replies);
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

    void lineStops() override { print("stopping: running steps end first; interrupt once more to end at once\n"); }

    void trouble(const std::string &text) override { print(oneLine(text) + "\n"); }

    // After a wrong answer, asks the same place again before any other.
    std::string ask(const RunRecord &run, size_t, const std::string &prompt, const std::string &problem,
                    Clock::time_point deadline, const Needless &needless) override {
        const int place = run.place.number;
        {
            Lock lock(mutex_);
            for (; asking_ != 0 && asking_ != place; free_.waitFor(lock, kTyping)) needAnswer(deadline, needless);
            asking_ = place;
            tcflush(STDIN_FILENO, TCIFLUSH);  // what was typed before belongs to no question
            prompt_ = fmt::format("{}: {}{} > ", nameOf(run.place),
                                  problem.empty() ? "" : oneLine(problem) + (problem.ends_with('.') ? " " : ". "),
                                  oneLine(prompt));
            output_.put("\r\033[K" + prompt_);
        }
        try {
            return readAnswer(deadline, needless);
        } catch (...) {
            release(place);
            throw;
        }
    }

private:
    // Returns the line that the operator types. Throws as ask() does.
    std::string readAnswer(Clock::time_point deadline, const Needless &needless) {
        for (;;) {
            needAnswer(deadline, needless);
            pollfd polled{STDIN_FILENO, POLLIN, 0};
            if (poll(&polled, 1, static_cast<int>(kTyping.count())) <= 0) continue;
            std::string line(kLongestAnswer, '\0');
            const ssize_t length = read(STDIN_FILENO, line.data(), line.size());
            if (length <= 0) throw std::runtime_error("the operator's terminal is gone");
            line.resize(static_cast<size_t>(length));
            const Lock lock(mutex_);
            prompt_.clear();
            return line;
        }
    }

    void release(int place) {
        const Lock lock(mutex_);
        if (asking_ != place) return;
        asking_ = 0;
        if (!prompt_.empty()) output_.put("\n");
        prompt_.clear();
        free_.notifyAll();
    }

    void print(const RunRecord &run, const std::string &text) {
        print(boards_ == 1 ? text + "\n" : fmt::format("{}  {}\n", nameOf(run.place), text));
    }

    // Repeats an open question below the new lines. What has been typed of its answer is not lost: the terminal has it.
    void print(const std::string &lines) {
        const Lock lock(mutex_);
        output_.put(watched_ ? "\r\033[K" + lines + prompt_ : lines);
    }

    // Prints a line that the next one replaces. Switches the terminal's line wrap off meanwhile, so that a long line
    // stays one line.
    void show(const std::string &text) {
        const Lock lock(mutex_);
        if (watched_ && prompt_.empty()) output_.progress("\r\033[?7l" + text + "\033[K\033[?7h");
    }

    Output &output_;
    const int boards_;
    const bool watched_;  // standard output is a terminal
    Mutex mutex_;
    Condition free_;
    int asking_ GUARDED_BY(mutex_) = 0;      // the number of the place that is asked; 0: none
    std::string prompt_ GUARDED_BY(mutex_);  // of the open question
};

}  // namespace

std::unique_ptr<Terminal> terminalOn(Output &output, int boards) { return std::make_unique<Lines>(output, boards); }

}  // namespace station
