// The live display: a thread of its own draws ten times a second what the boards' threads have told, and reads what the
// operator answers.

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <re2/re2.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "station/base/text.h"
#include "station/display/display.h"
#include "station/display/layout.h"
#include "station/run/durations.h"
#include "station/run/record_json.h"

namespace station {
namespace {

using Clock = std::chrono::steady_clock;
using Moment = Clock::time_point;

constexpr std::chrono::milliseconds kRefresh{100};

double secondsSince(Moment start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The text with its lines and colours, but without what else could move or erase what is drawn.
std::string harmless(const std::string &text) {
    static const re2::RE2 kKept("(?s)((?:\\PC|\\r?\\n|\\t|\\x1B\\[[0-9;]*m)*)(.?)");
    const std::string clean = asUtf8(text);
    std::string result, kept, other;
    for (re2::StringPiece rest(clean); !rest.empty() && re2::RE2::Consume(&rest, kKept, &kept, &other);) {
        result += kept + (other.empty() ? "" : "?");
    }
    return result;
}

// The terminal's mode before it was changed, for whoever ends the program in the middle of a question.
termios cooked;
std::atomic<bool> listening = false;

// What typing needs while the operator is asked: each character at once, and not echoed into the live lines.
class Keyboard {
public:
    Keyboard() : there_(isatty(STDIN_FILENO) != 0 && tcgetattr(STDIN_FILENO, &cooked) == 0) {}
    ~Keyboard() { restoreTerminal(); }

    bool there() const { return there_; }
    void lose() { there_ = false; }

    // What was typed before the question belongs to no question.
    void listen(bool on) const {
        if (!there_ || on == listening) return;
        termios mode = cooked;
        if (on) mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &mode);
        listening = on;
    }

private:
    bool there_;
};

class Terminal : public Display {
public:
    Terminal(int boards, bool coloured) : boards_(boards), coloured_(coloured), drawer_([this] { drawUntilEnd(); }) {}

    ~Terminal() override {
        const uint64_t one = 1;
        (void)!write(end_, &one, sizeof one);
        drawer_.join();
        close(end_);
    }

    void lineStarts(const std::vector<Place> &places) override {
        const std::lock_guard lock(mutex_);
        for (const Place &place : places) lines_[place.number].row.place = nameOf(place);
    }

    void boardConnects(const RunRecord &run) override {
        change(run, [&](Line &line) {
            line = {};
            line.row.place = nameOf(run.place);
            line.row.steps = run.steps.size();
            line.row.stage = Stage::kRunning;
            line.connected = line.started = Clock::now();
        });
    }

    void stepStarts(const RunRecord &run, size_t step) override {
        change(run, [&](Line &line) {
            line.row.stage = Stage::kRunning;
            line.row.step = step + 1;
            line.row.text = oneLine(run.steps[step].title);
            line.started = Clock::now();
            line.expected = durations_.of(run, step);
            line.sent = line.total = 0;
        });
    }

    void progress(const RunRecord &run, size_t, uint64_t sent, uint64_t total) override {
        change(run, [&](Line &line) {
            line.sent = sent;
            line.total = total;
        });
    }

    // Here or, when the line has a page, there.
    void asks(const RunRecord &run, size_t, const std::string &prompt) override {
        change(run, [&](Line &line) {
            line.row.stage = Stage::kAsking;
            line.row.text = oneLine(prompt);
        });
    }

    void stepEnds(const RunRecord &run, size_t step) override {
        const std::lock_guard lock(mutex_);
        durations_.learn(run, step);
        if (judged_ == run.place.number) judged_ = 0;
        if (boards_ == 1) above_ += coloured(describeStep(run.steps[step]), run.steps[step].passed()) + "\n";
    }

    void boardEnds(const RunRecord &run) override {
        change(run, [&](Line &line) {
            line.row.place = nameOf(run.place);
            line.row.stage = run.passed() ? Stage::kPassed : Stage::kFailed;
            line.row.text = oneLine(summaryOf(run));
            line.row.hint = oneLine(hintOf(run));
            line.row.seconds = std::chrono::duration<double>(run.end - run.start).count();
            ++(run.passed() ? passed_ : failed_);
            const bool told = boards_ == 1 || (boards_ > 1 && run.passed());  // by the steps, or the counts
            if (!told)
                above_ += fmt::format("{:%H:%M:%S}  {}  {}\n", fmt::localtime(WallClock::to_time_t(run.end)),
                                      nameOf(run.place), coloured(endLine(run), run.passed()));
            const std::string shown = shownReplies(run, boards_ != 1);
            if (!shown.empty()) above_ += harmless(shown) + "\033[0m\n";
        });
    }

    void placeFree(const Place &place) override {
        const std::lock_guard lock(mutex_);
        lines_[place.number] = {};
        lines_[place.number].row.place = nameOf(place);
    }

    void placeHeld(const Place &place, bool held) override {
        const std::lock_guard lock(mutex_);
        if (held) {
            held_.insert(place.number);
        } else {
            held_.erase(place.number);
        }
    }

    void strangerRefused(const std::string &peer, const std::string &why) override {
        const std::lock_guard lock(mutex_);
        ++strangers_;
        stranger_ = oneLine(peer + ": " + why);
    }

    void lineWaits(const std::string &why) override {
        const std::lock_guard lock(mutex_);
        waits_ = oneLine(why);
    }

    void lineStops() override {
        const std::lock_guard lock(mutex_);
        stops_ = true;
    }

    void trouble(const std::string &text) override {
        const std::lock_guard lock(mutex_);
        above_ += oneLine(text) + "\n";
    }

    std::string ask(const RunRecord &run, size_t, const std::string &prompt, const std::string &problem,
                    Moment deadline, const Needless &needless) override {
        Question question{run.place, oneLine(prompt), oneLine(problem), {}, {}};
        std::unique_lock lock(mutex_);
        pose(run, question);
        std::string why;
        while (!question.answer && Clock::now() < deadline && keyboard_.there() && (why = needless()).empty()) {
            answered_.wait_for(lock, kRefresh);
        }
        return withdraw(run, question, why);
    }

private:
    struct Line {
        Row row;
        Moment connected, started;
        double expected = 0;  // seconds that the step takes, from the runs before; 0: not known
        uint64_t sent = 0, total = 0;
    };

    struct Question {
        Place place;
        std::string prompt, problem;
        std::string typed;
        std::optional<std::string> answer;
    };

    template <typename Change>
    void change(const RunRecord &run, const Change &apply) {
        const std::lock_guard lock(mutex_);
        Line &line = lines_[run.place.number];
        apply(line);
        line.row.unit = oneLine(run.unit);
    }

    // The first of the questions is the one that is asked; but while an answer is judged none is, and when it was wrong
    // the same place is asked again: the operator's next answer may not go to another board.
    Question *asked() const {
        const bool other = !questions_.empty() && judged_ != 0 && questions_.front()->place.number != judged_;
        return questions_.empty() || other ? nullptr : questions_.front();
    }

    void pose(const RunRecord &run, Question &question) {
        if (!keyboard_.there()) throw std::runtime_error("there is no terminal where an operator could be asked");
        questions_.insert(judged_ == run.place.number ? questions_.begin() : questions_.end(), &question);
        lines_[run.place.number].row.stage = Stage::kAsking;
        lines_[run.place.number].row.text = question.prompt;
    }

    std::string withdraw(const RunRecord &run, Question &question, const std::string &why) {
        questions_.erase(std::find(questions_.begin(), questions_.end(), &question));
        lines_[run.place.number].row.stage = Stage::kRunning;
        if (question.answer) {
            judged_ = run.place.number;
            return *question.answer;
        }
        if (judged_ == run.place.number) judged_ = 0;
        throw std::runtime_error(!why.empty()        ? why
                                 : keyboard_.there() ? "the operator did not answer in time"
                                                     : "the operator's terminal is gone");
    }

    void drawUntilEnd() {
        bool ended = false;
        while (!ended) {
            pollfd polled[] = {{end_, POLLIN, 0}, {asking() ? STDIN_FILENO : -1, POLLIN, 0}};
            poll(polled, 2, static_cast<int>(kRefresh.count()));
            ended = polled[0].revents != 0;
            if (polled[1].revents != 0) readKeys();
            const std::string text = frame();
            std::fwrite(text.data(), 1, text.size(), stdout);
            std::fflush(stdout);
        }
    }

    bool asking() {
        const std::lock_guard lock(mutex_);
        return asked() != nullptr;
    }

    void readKeys() {
        char keys[256];
        const ssize_t length = read(STDIN_FILENO, keys, sizeof keys);
        const std::lock_guard lock(mutex_);
        if (length <= 0) keyboard_.lose();
        Question *const question = asked();
        // What follows the end of an answer was typed for no question.
        for (ssize_t i = 0; i < length && question != nullptr && !question->answer; ++i) type(*question, keys[i]);
        answered_.notify_all();
    }

    // With all bytes of its UTF-8.
    static void eraseLast(std::string &text) {
        while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
        if (!text.empty()) text.pop_back();
    }

    static void type(Question &question, char key) {
        constexpr char kErase = '\x7F', kBackspace = '\b', kEraseAll = '\x15';
        if (key == '\n' || key == '\r') {
            question.answer = question.typed;
        } else if (key == kErase || key == kBackspace) {
            eraseLast(question.typed);
        } else if (key == kEraseAll) {
            question.typed.clear();
        } else if (static_cast<unsigned char>(key) >= ' ') {
            question.typed += key;
        }
    }

    std::vector<Row> rows() const {
        std::vector<Row> rows;
        for (const auto &[number, line] : lines_) {
            Row &row = rows.emplace_back(line.row);
            if (row.stage == Stage::kWaiting && held_.contains(number)) row.text = "held";
            if (row.stage != Stage::kRunning) continue;
            row.seconds = secondsSince(line.connected);
            project(row, line);
        }
        return rows;
    }

    static void project(Row &row, const Line &line) {
        const double passed = row.elapsed = secondsSince(line.started);
        const double expected = estimate(line.expected, passed, line.sent, line.total);
        if (expected <= 0) return;
        row.fraction = std::min(passed / expected, 0.99);
        row.left = std::max(expected - passed, 0.0);
    }

    std::vector<std::string> foot() const {
        std::vector<std::string> lines;
        if (strangers_ > 0) lines.push_back(fmt::format("strangers refused: {}, the last {}", strangers_, stranger_));
        if (!waits_.empty()) lines.push_back("no new boards are taken: " + waits_);
        if (stops_) lines.push_back("stopping: what runs ends first; interrupt once more to end at once");
        if (boards_ != 1) {
            lines.push_back(
                fmt::format("since {:%H:%M}: {} passed, {} failed", fmt::localtime(opened_), passed_, failed_));
        }
        if (const Question *const question = asked()) lines.push_back(promptLine(*question));
        return lines;
    }

    std::string promptLine(const Question &question) const {
        const std::string more = questions_.size() > 1 ? fmt::format(" ({} more wait)", questions_.size() - 1) : "";
        const std::string problem = question.problem.empty() ? "" : question.problem + ". ";
        return fmt::format("{}{}: {}{} > {}", nameOf(question.place), more, problem, question.prompt, question.typed);
    }

    // What changes the terminal from what was drawn before, line by line, so that nothing flickers; the terminal cuts
    // what is too long. Empty: nothing.
    std::string frame() {
        const std::lock_guard lock(mutex_);
        keyboard_.listen(asked() != nullptr);  // before the question is seen, and answered
        const std::vector<std::string> lines = layOut(rows(), screen(), foot());
        if (lines == drawn_ && above_.empty()) return {};
        std::string text = drawn_.empty() ? "\r" : fmt::format("\033[{}A\r", drawn_.size());
        if (!above_.empty()) text += "\033[J" + std::exchange(above_, {});
        text += "\033[?7l";
        for (const std::string &line : lines) text += line + "\033[K\n";
        drawn_ = lines;
        return text + "\033[J\033[?7h";
    }

    Screen screen() const {
        winsize size{};
        const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
        // One row is the cursor's.
        return {known ? std::max<size_t>(size.ws_col, 40) : 80, known ? std::max<size_t>(size.ws_row, 4) - 1 : 23,
                coloured_};
    }

    // The verdict at the start of the text, green or red.
    std::string coloured(const std::string &text, bool passed) const {
        if (!coloured_) return text;
        const size_t end = text.find(' ');
        return fmt::format("\033[{}m{}\033[0m{}", passed ? "32" : "1;31", text.substr(0, end), text.substr(end));
    }

    const int boards_;
    const bool coloured_;
    const std::time_t opened_ = std::time(nullptr);
    const int end_ = eventfd(0, EFD_CLOEXEC);
    std::mutex mutex_;
    std::condition_variable answered_;
    Durations durations_;
    Keyboard keyboard_;
    std::map<int, Line> lines_;
    std::set<int> held_;  // places, by number
    std::deque<Question *> questions_;
    int judged_ = 0;     // the place whose answer is judged; 0: none
    std::string above_;  // what goes above the live lines for good
    std::vector<std::string> drawn_;
    size_t passed_ = 0, failed_ = 0, strangers_ = 0;
    std::string stranger_, waits_;
    bool stops_ = false;
    std::thread drawer_;  // the last: it uses all the others
};

}  // namespace

std::unique_ptr<Display> makeTerminal(int boards, bool coloured) {
    return std::make_unique<Terminal>(boards, coloured);
}

void restoreTerminal() {
    if (listening.exchange(false)) tcsetattr(STDIN_FILENO, TCSANOW, &cooked);
}

}  // namespace station
