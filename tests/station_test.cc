// The station against boards that misbehave, and its plans: what is wrong with them before a board is there, and what
// they do with one.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <regex>
#include <thread>

#include "image/firmware_image.h"
#include "station/plan/plan.h"
#include "station/plan/yaml.h"
#include "station/run/hooks.h"
#include "station/run/output.h"
#include "station/run/run.h"
#include "station/wire/listener.h"
#include "station/wire/script.h"
#include "tests/folder.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using station::Milliseconds, station::RunRecord, station::Session, station::SessionError, station::Socket;
using testing::HasSubstr;

// A session, and the board's end of it. What is sent at once is received at once.
struct Pair {
    void boardSends(const std::string &bytes) const { send(ends[1], bytes.data(), bytes.size(), 0); }

    int ends[2];
    int made = socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
    Session session{Socket(ends[0])};
    Socket board{ends[1]};
};

std::string frame(std::string text) {
    text.resize(std::max<size_t>(64, text.size() + 1), '\0');
    return text;
}

TEST(Frames, OfRepliesMustBeExact) {
    const std::string exactly64(64, 'a'), longer(65, 'b');
    const struct {
        std::string bytes, text, failure;
    } cases[] = {
        {frame("OK"), "OK", ""},
        {frame(std::string(63, 'c')), std::string(63, 'c'), ""},
        {exactly64, exactly64, ""},
        {longer + '\0', longer, ""},
        {frame(std::string(1499, 'd')), std::string(1499, 'd'), ""},
        {"OK"s, "", "ended after 2 bytes"},
        {"OK\0"s, "", "ended after 3 bytes"},
        {exactly64 + '\0', "", "1 bytes behind"},
        {"OK\0x"s + std::string(60, '\0'), "", "not filled with NUL"},
        {longer + "\0\0"s, "", "1 bytes behind"},
        {std::string(200, 'e'), "", "ended after 200"},
        {frame(std::string(1500, 'f')), "", "1501 bytes"},
        {"", "", "no reply within"},
    };
    for (const auto &test : cases) {
        Pair pair;
        if (!test.bytes.empty()) pair.boardSends(test.bytes);
        std::string text, failure;
        try {
            text = pair.session.receiveReply(Milliseconds(50));
        } catch (const SessionError &error) {
            failure = error.what();
            EXPECT_EQ(dynamic_cast<const station::WrongReply *>(&error) == nullptr, test.bytes.empty()) << failure;
        }
        EXPECT_EQ(text, test.text) << failure;
        EXPECT_THAT(failure, HasSubstr(test.failure));
    }
    Pair pair;
    for (const char c : frame(longer)) pair.boardSends({c});
    EXPECT_EQ(pair.session.receiveReply(Milliseconds(50)), longer) << "in pieces";
    for (const std::string &piece : {exactly64, "b"s}) pair.boardSends(piece);
    EXPECT_THROW(pair.session.receiveReply(Milliseconds(50)), SessionError) << "longer than 64, and without an end";
    pair.session.sendCommand("PING");
    char bytes[100];
    EXPECT_EQ(std::string(bytes, static_cast<size_t>(recv(pair.ends[1], bytes, sizeof bytes, 0))), frame("PING"));
    EXPECT_THROW(pair.session.sendCommand(longer), std::invalid_argument);
    pair.session.sendCommand("PING");
    pair.board = Socket(-1);  // with a command unread: the connection is reset
    EXPECT_THAT([&] { pair.session.receiveReply(Milliseconds(50)); },
                testing::ThrowsMessage<SessionError>("the board closed the connection"));
}

TEST(Frames, ThatTrickleInEndAtTheLimit) {
    Pair pair;
    pair.boardSends(std::string(64, 'a'));
    std::atomic<bool> over = false;
    int sent = 0;
    std::thread board([&] {
        for (; sent < 100 && !over; ++sent) {
            pair.boardSends("b");
            std::this_thread::sleep_for(Milliseconds(50));
        }
    });
    EXPECT_THROW(pair.session.receiveReply(Milliseconds(200)), SessionError);
    over = true;
    board.join();
    EXPECT_LT(sent, 100);
}

TEST(OutputTest, ASlowReaderLosesProgressFirstThenWholeLines) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Socket reader(ends[0]), writer(ends[1]);
    station::Output output(ends[1], [](size_t dropped) { return "dropped " + std::to_string(dropped) + "\n"; });
    const std::string line(999, 'x');
    for (int i = 0; i < 3000; ++i) output.put(line + "\n");
    for (int i = 0; i < 3000; ++i) output.progress("progress\n");
    for (int i = 0; i < 7000; ++i) output.put(line + "\n");
    EXPECT_EQ(output.finish([] { return true; }), "nobody reads it");
    std::string text, part(4096, '\0');
    while (text.find("dropped") == std::string::npos || text.back() != '\n')
        text.append(part, 0, static_cast<size_t>(read(ends[0], part.data(), part.size())));
    const auto lines = std::count(text.begin(), text.end(), '\n') - 1;
    EXPECT_EQ(text.find("progress"), std::string::npos);
    EXPECT_LT(text.size(), 5 << 20);
    EXPECT_THAT(text, testing::EndsWith("\ndropped " + std::to_string(10000 - lines) + "\n"));
}

TEST(HookTest, KeepsTheEndOfWhatIsPrintedAlone) {
    const station::Hook hook{"A='1 2' B=3 head -c 50000000 /dev/zero; stat -Lc ' %s bytes kept' /dev/stdout; exit 3",
                             Milliseconds(60000),
                             {}};
    const std::string failure = station::runHook(hook, {}, "before");
    EXPECT_THAT(failure, testing::StartsWith("The command before the test, head, failed (status 3): "));
    EXPECT_THAT(failure, testing::EndsWith(" 0 bytes kept\n"));
}

TEST(HookTest, NothingReplacesWhatTheStationSays) {
    RunRecord run;
    run.id = "mine";
    run.variables = {{"RUN", "board's"}, {"VERDICT", "passed"}, {"PLACE", "board's"}, {"serial", "7"}};
    run.steps.resize(1);
    const std::string failure =
        station::runHook({"env | grep ^QC_ | LC_ALL=C sort; exit 1", Milliseconds(60000), "/"}, run, "after");
    EXPECT_THAT(failure, testing::EndsWith(": QC_PLACE=\nQC_RUN=mine\nQC_VERDICT=\nQC_serial=7\n"));
}

class PlanTest : public testing::Test {
protected:
    void SetUp() override {
        write("five", "12345");
        write("script", "exit");
        write("empty", "");
        fwimage::create(folder_ / "damaged", {"ACME", "AP-2", "1.2.3", "00012001"}, {{"2.bin", folder_ / "five"}});
        std::ofstream(folder_ / "damaged", std::ios::app) << "more";
    }

    fs::path write(const std::string &name, const std::string &content) const { return made_.write(name, content); }

    // The faults; the warnings when there is none.
    std::string faultsOf(const std::string &text) const try {
        return station::loadPlan(write("plan.yaml", text), {}, {{"line"}, {"mac"}}).warnings;
    } catch (const station::PlanError &error) {
        return error.what();
    }

    const Folder made_;
    const fs::path folder_ = made_.path;
};

using Texts = std::vector<std::string>;

Texts split(const std::string &text, char separator) {
    Texts parts;
    std::istringstream rest(text);
    for (std::string part; std::getline(rest, part, separator);) parts.push_back(part);
    return parts;
}

// Reads a file of tests/plans, whose first paragraph explains the others. Returns the lines of each by the sign before
// them; a line without a sign stands under a blank.
std::vector<std::map<char, Texts>> casesIn(const char *name) {
    std::vector<std::map<char, Texts>> cases;
    for (const std::string &line : split(contentOf(fs::path(SOURCES "/tests/plans") / name), '\n')) {
        if (cases.empty() || line.empty()) cases.emplace_back();
        const bool marked = line.size() > 1 && line[1] == ' ' && strchr("<=!?", line[0]) != nullptr;
        const std::string text = marked ? std::regex_replace(line.substr(2), std::regex("\\\\n"), "\n") : line;
        if (!line.empty()) cases.back()[marked ? line[0] : ' '].push_back(text);
    }
    cases.erase(cases.begin());
    return cases;
}

TEST_F(PlanTest, FaultsAreNamedWithTheirPlace) {
    for (auto &test : casesIn("faults")) {
        const std::string plan = fmt::format("{}\n", fmt::join(test[' '], "\n")), found = faultsOf(plan);
        for (const std::string &fault : test['!']) EXPECT_THAT(found, HasSubstr(fault)) << plan;
        EXPECT_EQ(found.empty(), test['!'].empty()) << plan << found;
    }
    EXPECT_THAT(faultsOf(std::string(5000, '[')), HasSubstr("nested too deeply"));
}

TEST_F(PlanTest, EveryRunNamesThePlanAndItsFiles) {
    const fs::path path =
        write("plan.yaml",
              "- {send: 'VERSION {size}', upload: five, expect: OK}\n- {script: script}\n- {run: A=1 sh tool 1}\n");
    write("tool", "");
    const auto started = [&] { return station::newRun(station::loadPlan(path), {}); };
    const RunRecord run = started();
    std::string files;
    for (const auto &file : run.files) files += fmt::format("{} {} {}, ", file.step, file.name, file.size);
    EXPECT_EQ(files, "1 five 5, 2 script 4, 3 tool 0, ");
    EXPECT_EQ(run.files.at(0).sha256, "5994471abb01112afcc18159f6cc74b4f511b99806da59b3caf5a9c173cacfc5");
    std::set digests = {run.planDigest, started().planDigest};
    const std::pair<const char *, const char *> changes[] = {{"tool", "exit 1"}, {"five", "12346"}, {"plan.yaml", "#"}};
    for (const auto &[name, more] : changes) {
        std::ofstream(folder_ / name, std::ios::app) << more;
        EXPECT_TRUE(digests.insert(started().planDigest).second) << name;
    }
    EXPECT_EQ(digests.size(), 4U);
}

// What happens around a board: the commands that it got, and how often its cable is looked at before it has a link.
struct Bench {
    std::string happened;
    int unlinked = 0;
};

// Connects when the plan begins, and again when that waits for it. Each command gets the next reply; an empty one, and
// BYE, end the connection. A script prints the reply, and ends with status 0. The bench gets the commands with their
// payloads.
class ScriptedBoard : public station::Board {
public:
    ScriptedBoard(Texts replies, Bench &bench) : replies_(std::move(replies)), bench_(bench) { reconnect({}); }
    ~ScriptedBoard() override { disconnect(); }

    Session &session() override { return *session_; }
    bool linked() const override { return --bench_.unlinked < 0; }

    void reconnect(station::Clock::time_point) override {
        disconnect();
        if (next_ == replies_.size()) throw SessionError("it did not come back");
        thread_ = std::thread([this, board = connectTo(listener_.port())] { serve(board.descriptor()); });
        station::waitFor(listener_.descriptor(), POLLIN, station::Clock::now() + std::chrono::seconds(5));
        session_ = listener_.take();
    }

private:
    // From 127.0.0.1, or another address of this machine.
    static Socket connectTo(uint16_t port, in_addr_t from = INADDR_LOOPBACK) {
        sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        const sockaddr_in own = {AF_INET, 0, {htonl(from)}, {}};
        Socket board(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(bind(board.descriptor(), reinterpret_cast<const sockaddr *>(&own), sizeof own), 0);
        EXPECT_EQ(connect(board.descriptor(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return board;
    }

    static std::string receive(int board, size_t length) {
        std::string bytes(length, '\0');
        if (length > 0) bytes.resize(static_cast<size_t>(recv(board, bytes.data(), length, MSG_WAITALL)));
        return bytes;
    }

    void serve(int board) {
        for (std::string frame; !(frame = receive(board, station::kFrame)).empty();) {
            const std::string command = frame.c_str();
            std::string reply = replies_.at(next_++);
            const bool script = command.starts_with("SHELL"), announces = script || command.starts_with("FW ");
            const std::string payload = receive(board, announces ? std::stoul(command.substr(command.rfind(' '))) : 0);
            const std::string happened = script ? payload.substr(payload.find("exit 0\n") + 7) : command + payload;
            bench_.happened += happened.substr(0, happened.find('\n')) + ";";
            if (script) sendResult(payload, std::exchange(reply, command));
            if (reply.empty()) return;
            reply.resize(station::kFrame);
            send(board, reply.data(), reply.size(), MSG_NOSIGNAL);
            if (command == "BYE") return;
        }
    }

    // Another host, which has found the port, is quicker than the board.
    static void sendResult(const std::string &payload, const std::string &output) {
        const auto port = static_cast<uint16_t>(std::stoi(payload.substr(payload.find("nc ") + 15)));
        const Socket other = connectTo(port, INADDR_LOOPBACK + 1);
        send(other.descriptor(), "0\nother", 7, MSG_NOSIGNAL);
        const Socket result = connectTo(port);
        send(result.descriptor(), ("0\n" + output).data(), output.size() + 2, MSG_NOSIGNAL);
    }

    void disconnect() {
        session_.reset();
        if (thread_.joinable()) thread_.join();
    }

    Texts replies_;
    size_t next_ = 0;
    Bench &bench_;
    station::Listener listener_{"127.0.0.1", 0};
    std::optional<Session> session_;
    std::thread thread_;
};

std::string verdictsOf(const RunRecord &run) {
    std::string verdicts;
    for (const auto &step : run.steps) verdicts += "-PF"[static_cast<size_t>(step.verdict)];
    return verdicts;
}

// The line around a run. Its operator answers "oops" first, then "unit-7", and acts on some prompts. The pool "none" is
// empty, every other one has addresses. The step "stop" stops the line.
struct Line : station::Operator, station::Records, station::Observer, Bench {
    std::string ask(const RunRecord &, size_t, const std::string &prompt, const std::string &problem,
                    station::Clock::time_point, const station::Needless &needless) override {
        happened += prompt + (problem.empty() ? "?;" : "!;");
        if (prompt == "sleep") throw station::NoAnswer("nobody is there");
        if (prompt == "stop") stop.request();
        if (prompt == "stop") throw station::NoAnswer(needless());
        unlinked = prompt == "jolt" ? 5 : prompt == "pull" ? 1000 : 0;
        return std::exchange(answer, "unit-7");
    }
    Texts bind(const std::string &pool, const RunRecord &run, int count) override {
        if (pool == "none") throw station::RecordsError("the pool is empty");
        happened += std::to_string(count) + " " + pool + " of " + run.unit + ";";
        return Texts(static_cast<size_t>(count), "02:00:00:00:00:01");
    }
    station::AddressOwner ownerOf(const std::string &address, const RunRecord &run) override {
        const char last = address.back();
        return {last == '7' ? "unit-7" : last == '8' ? "unit-8" : "", run.unit == "unit-7"};
    }
    void stepStarts(const RunRecord &run, size_t step) override {
        if (run.steps[step].title == "stop") stop.request();
        if (run.steps[step].title == "pull") unlinked = 1000;
    }

    std::string answer = "oops";
    station::Stop stop;
    station::Units units;
};

TEST_F(PlanTest, StepsAreRunAsTheySay) {
    std::string lines;
    for (int i = 0; i < 60000; ++i) lines += "line\n";
    const std::map<std::string, std::string> replaced = {{"long", lines.substr(0, station::kLongestOutput)},
                                                         {"longer", lines.substr(0, station::kLongestOutput + 1)},
                                                         {"longest", lines},
                                                         {"bytes", "v=\xB1"},
                                                         {"torn", "X\0Y"s}};
    for (auto &test : casesIn("runs")) {
        for (const char sign : {'<', '!', '?'}) test[sign].resize(1);
        std::string text;
        for (const std::string &step : test[' '])
            text += "- {" + step + (step.find("hint:") == std::string::npos ? ", hint: see me}\n" : "}\n");
        const station::Plan plan = station::loadPlan(write("plan.yaml", text), {}, {{}, {"pool", "none"}});
        write("five", "other bytes");
        Texts replies = split(test['<'][0] + ";", ';');
        for (std::string &reply : replies) reply = replaced.contains(reply) ? replaced.at(reply) : reply;
        Line line;
        RunRecord run = station::newRun(plan, {}), other = station::newRun(plan, {9, "9"});
        const station::Context context{line, line, line.stop, line, line.units};
        line.units.admit(other, "taken", plan, context, nullptr);
        {
            ScriptedBoard board(replies, line);
            run = station::runPlan(board, plan, run, context);
        }
        write("five", "12345");

        std::string course = verdictsOf(run), failure;
        if (!line.happened.empty()) course += " " + line.happened.substr(0, line.happened.size() - 1);
        for (const auto &step : run.steps) {
            if (failure.empty() && !step.passed())
                failure = step.failure + (step.hint.empty() ? "" : " -> " + step.hint);
        }
        EXPECT_EQ(course, test['='][0]) << text;
        EXPECT_EQ(run.unit.empty(), !run.variables.contains("serial")) << text;
        EXPECT_THAT(failure, HasSubstr(test['!'][0])) << text;
        EXPECT_EQ(failure.empty(), test['!'][0].empty()) << text;
        const std::string cause = run.passed() ? "" : test['?'][0].empty() ? "unit" : test['?'][0];
        EXPECT_EQ(textOf(run.cause), cause) << text;
        EXPECT_EQ(todoAbout(run) == todoAbout(run.cause), cause != "unit") << "the plan's hint " << text;
    }
}

// An operator who gives these answers one by one, and then none.
struct Scans : Line {
    std::string ask(const RunRecord &, size_t, const std::string &, const std::string &problem,
                    station::Clock::time_point, const station::Needless &) override {
        problems += problem + ";";
        if (next == answers.size()) throw station::NoAnswer("nobody answers");
        if (next > 0 && answers[next] == "A") std::this_thread::sleep_for(std::chrono::seconds(1));  // as people do
        return answers[next++];
    }

    Texts answers;
    size_t next = 0;
    std::string problems;
};

RunRecord pastRun(const station::Plan &plan, const char *unit, char verdict) {
    RunRecord run = station::newRun(plan, {2, "bench-2"});
    run.unit = unit;
    for (auto &step : run.steps) step.verdict = verdict == 'P' ? station::Verdict::kPassed : station::Verdict::kFailed;
    run.stampEnd();
    return run;
}

TEST_F(PlanTest, AUnitIsTestedAgainWhenThePlanLetsIt) {
    const char *const asks = "ask: serial, prompt: S", *const prints = "send: S, match: '(?P<serial>.*)'";
    const struct {
        const char *keys, *names, *before, *answers;  // `before`: how the unit's earlier runs ended
        const char *verdicts, *unit, *problem;
    } cases[] = {
        {"", asks, "", "A", "PP", "A", ""},
        {"", asks, "P", "A;A", "PP", "A", " at bench-2; scan it once more to test it again"},
        {"", asks, "P", "A; A", "F-", "", "A passed "},  // its scanner's trigger was pressed twice
        {"", asks, "P", "A;B", "PP", "B", "A passed "},
        {"", asks, "P", "A;too", "F-", "", "too passed "},
        {"", asks, "P", "A;taken;A", "F-", "", "A passed "},
        {"", asks, "PF", "A", "PP", "A", ""},
        {"", prints, "P", "", "F-", "", " at bench-2, and is not tested again"},
        {"again: refuse", asks, "P", "A;A", "F-", "", " at bench-2, and is not tested again"},
        {"again: allow", prints, "P", "", "PP", "A", ""},
        {"attempts: 2", asks, "FF", "A;A", "PP", "A", "A failed 2 times in a row"},
        {"attempts: 2", asks, "FPF", "A", "PP", "A", ""},
        {"again: allow, attempts: 2", prints, "FF", "", "F-", "", ": to repair"},
    };
    for (const auto &test : cases) {
        std::string keys = test.keys, text = fmt::format("{{{}{}steps: [{{{}}}, {{send: X, expect: X}}]}}", keys,
                                                         keys.empty() ? "" : ", ", test.names);
        const station::Plan plan = station::loadPlan(write("plan.yaml", text));
        Scans line;
        line.answers = split(test.answers, ';');
        for (const char verdict : std::string(test.before)) {
            for (const char *const unit : {"A", "too"}) line.units.ended(pastRun(plan, unit, verdict));
        }
        RunRecord run = station::newRun(plan, {}), other = station::newRun(plan, {9, "9"});
        const station::Context context{line, line, line.stop, line, line.units};
        line.units.admit(other, "taken", plan, context, nullptr);
        {
            ScriptedBoard board(test.names == prints ? Texts{"A", "X"} : Texts{"X"}, line);
            run = station::runPlan(board, plan, run, context);
        }
        EXPECT_EQ(verdictsOf(run), test.verdicts) << text;
        EXPECT_EQ(run.unit, test.unit) << text;
        EXPECT_EQ(run.cause, run.passed() ? station::Cause::kNone : station::Cause::kOperator) << text;
        EXPECT_THAT(line.problems + run.steps[0].failure, HasSubstr(test.problem)) << text;
        EXPECT_EQ(line.problems.size() > 1 || !run.steps[0].passed(), *test.problem != '\0') << text;
    }
}

TEST_F(PlanTest, APlaceTestsNoUnitBeforeTheReferencePassedThere) {
    station::Plan plan = station::loadPlan(
        write("plan.yaml", "[{send: S, match: '(?P<serial>[A-Z]+)?'}, {send: X, match: ok}]"), {}, {});
    Line line;
    const station::Context context{line, line, line.stop, line, line.units, {"GOLD", std::chrono::hours(1)}};
    const auto test = [&](const char *unit, const char *place, const char *reply) {
        ScriptedBoard board({unit, reply}, line);
        RunRecord run = station::runPlan(board, plan, station::newRun(plan, {1, place}), context);
        if (!run.passed()) run.cause = station::Cause::kUnit;
        line.units.ended(run);
        return (run.passed() ? "passed " : "failed ") + std::string(run.reference ? "reference" : run.steps[0].failure);
    };
    line.units.ended(pastRun(plan, "GOLD", 'P'));  // before it became the reference
    const std::string due = "failed the reference unit GOLD is due at left: test it here first, then this one";
    EXPECT_EQ(test("A", "left", "ok"), due);
    EXPECT_EQ(test("-", "left", "ok"), "failed ") << "it did not say which unit it is";
    EXPECT_EQ(test("GOLD", "right", "ok"), "passed reference");
    EXPECT_EQ(test("GOLD", "left", "no"), "failed reference");
    EXPECT_EQ(test("A", "left", "ok"), due);
    EXPECT_EQ(test("GOLD", "left", "ok"), "passed reference");
    EXPECT_EQ(test("GOLD", "left", "ok"), "passed reference");  // again and again
    EXPECT_EQ(test("A", "left", "ok"), "passed ");
    plan.name = "other";
    EXPECT_EQ(test("B", "left", "ok"), due);
    plan.name = "plan";
    EXPECT_EQ(test("GOLD", "left", "no"), "failed reference");
    EXPECT_EQ(test("B", "left", "ok"), due);
}

}  // namespace
