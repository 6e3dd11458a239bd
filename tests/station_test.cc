// The station against boards that misbehave, and its plans: what is wrong with them before a board is there, and what
// they do with one.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "image/firmware_image.h"
#include "station/plan/plan.h"
#include "station/plan/yaml.h"
#include "station/run/hooks.h"
#include "station/run/output.h"
#include "station/run/run.h"
#include "station/wire/listener.h"
#include "station/wire/script.h"

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
        {frame("OK") + '\0', "", "1 bytes behind"},
        {exactly64 + '\0', "", "1 bytes behind"},
        {"OK\0x"s + std::string(60, '\0'), "", "not filled with NUL"},
        {frame("OK") + frame("OK"), "", "64 bytes behind"},
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
    while (text.find("dropped") == std::string::npos || text.back() != '\n') {
        text.append(part, 0, static_cast<size_t>(read(ends[0], part.data(), part.size())));
    }
    const auto lines = std::count(text.begin(), text.end(), '\n') - 1;
    EXPECT_EQ(text.find("progress"), std::string::npos);
    EXPECT_LT(text.size(), 5 << 20);
    EXPECT_THAT(text, testing::EndsWith("\ndropped " + std::to_string(10000 - lines) + "\n"));
}

TEST(HookTest, KeepsTheEndOfWhatIsPrintedAlone) {
    const station::Hook hook{
        "head -c 50000000 /dev/zero; stat -Lc ' %s bytes kept' /dev/stdout; exit 3", Milliseconds(60000), {}};
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
    void TearDown() override { fs::remove_all(folder_); }

    fs::path write(const std::string &name, const std::string &content) const {
        std::ofstream(folder_ / name) << content;
        return folder_ / name;
    }

    // The faults; the warnings when there is none.
    std::string faultsOf(const std::string &text) const try {
        return station::loadPlan(write("plan.yaml", text), {}, {{"line"}, {"mac"}}).warnings;
    } catch (const station::PlanError &error) {
        return error.what();
    }

    char name_[17] = "/tmp/plan.XXXXXX";
    fs::path folder_ = mkdtemp(name_);
};

TEST_F(PlanTest, FaultsAreNamedWithTheirPlace) {
    const struct {
        const char *plan, *fault;
    } cases[] = {
        // What would spoil a board.
        {"- {send: 'FW KERNEL {size}', expect: OK}", "1:10: {size} needs \"upload\""},
        {"- {send: FW KERNEL 0, expect: OK}", "1:10: the board would take this for an empty payload"},
        {"- {send: FW KERNEL 4, upload: five, expect: OK}", "1:10: announces \"4\", but its payload has 5 bytes"},
        {"- {send: PING, upload: five, expect: OK}", "1:10: the board takes no payload after this"},
        {"- {send: 'VERSION {size}', upload: five, bare: true, expect: OK}", "1:48: the board would take the payload"},
        {"- {send: 'MAC 001122334455aa', expect: MAC 4}", "1:10: \"001122334455aa\" is not a MAC address"},
        {"- {send: 'MAC 01:00:00:00:00:01', expect: MAC 4}", "1:10: no board may have the MAC address"},
        {"- {send: 'MAC {mac}', expect: MAC 4}", "1:10: {mac} is taken for a unit"},
        {"- {ask: serial, prompt: S}\n- {send: 'MAC {mac}', match: MAC 4}", "2:10: how many addresses are taken?"},
        {"- {ask: serial, prompt: S}\n- {send: 'MAC {mac}', expect: MAC 257}", "2:10: how many addresses are taken?"},
        {"- {send: 'COUNTRY de', expect: OK}", "1:10: \"de\" is not a country code"},
        {"- {send: '12345678901234567890123456789012345678901234567890123456789012345', expect: OK}", "at most 64"},
        // Names, and what fills them.
        {"- {send: 'X {who}', expect: OK}", "1:10: nothing fills {who}"},
        {"- {send: 'X }', expect: OK}", "1:10: a '}' is not part of a {name}: for a brace write '}}'"},
        {"- {send: 'MAC {', expect: MAC 4}", "1:10: a '{' is not part of a {name}"},
        // The course of the session.
        {"- {send: BYE, expect: BYE}\n- {send: PING, expect: PING 2}", "2:3: the session has ended before this step"},
        {"- {send: REBOOT, expect: OK}\n- {send: PING, expect: PING 2}", "2:3: warning: the board may be gone"},
        {"- {send: INFO, expect: INFO}", "1:3: warning: every board would pass: without a PING"},
        {"- {send: 'MAC 2', expect: MAC 4}", "1:3: warning: every board of this plan gets the same"},
        {"- {send: FACTORY RESET, expect: OK}", "1:3: warning: nothing waits for the end of the reset"},
        {"- {send: 'FW CONFIG {size}', upload: five, expect: OK}", "1:3: warning: 10 s may not be enough"},
        {"- {send: 'FW CONFIG {size}', upload: five, expect: OK}",
         "1:3: warning: its OK does not say that it was written"},
        {"- {send: BYE, expect: BYE, retries: 1}", "1:37: a step that ends the session"},
        // The form.
        {"- {send: PING, expect: OK}\n---\n- {send: PING, expect: OK}", "2:1: a second document"},
        {"- {send: PING}\n- PING", "1:3: a command needs \"expect\" or \"match\"\n"},
        {"- {send: PING}\n- PING", "2:3: a step is a map of keys"},
        {"- {send: PING, expct: OK}", "1:16: unknown key \"expct\" in a \"send\" step"},
        {"- {send: PING, expect: OK, match: OK}", "1:35: a step has either"},
        {"- {send: PING, match: '(['}", "1:23: bad expression"},
        {"- {send: PING, expect: OK, upload: none}", ": No such file or directory"},
        {"- {verify: ., partition: 1}", "1:12: cannot read"},
        {"- {send: PING, expect: OK, timeout: .nan}", "1:37: a time limit lies between"},
        {"- {send: PING, match: 'x', limits: {x: {max: 1}}}", "1:36: \"match\" has no group (?P<x>...)"},
        {"{name: a/b, steps: [{send: PING, expect: OK}]}",
         "1:8: a name that files get has at most 64 bytes and no '/'"},
        {"{name: a2345678901234567890123456789012345678901234567890123456789012345}", "1:8: a name that files get"},
        {"- {send: PING, match: 'x', limits: {1: {max: 1}, x: {min: 2, max: 1}}}", "1:53: \"min\" is above \"max\""},
        {"- {send: X, match: '(?P<m>.*)', whose: m}", "1:40: the address is compared with those of a unit"},
        {"- {ask: serial, prompt: S}\n- {send: X, match: x, whose: m}", "2:30: the address is a named group"},
        {"{again: never, steps: []}", "1:9: expected ask, refuse or allow"},
        {"{step: []}", "1:2: unknown key \"step\" in a plan"},
        {"", "a plan is a list of steps"},
        {"- {send: PING\n", "plan.yaml:2:1: not YAML: "},
        {"- {send: !!binary UElORw==, expect: OK}", "1:10: a tag such as !!binary has no meaning here"},
        {"- {send: \"PI\\0NG\", expect: OK}", "1:10: a command cannot have a NUL byte"},
        {"- {send: 'X {line}', expect: X, take: 2}", "1:39: \"take\" needs a text that names a pool"},
        {"- {ask: mac, prompt: S}\n- {send: 'X {mac}', expect: X}", "2:10: {mac} is a variable and a pool"},
        {"- {ask: serial, prompt: S}\n- {send: 'X {mac}', match: '(?P<mac>.)'}", "2:3: {mac} is a variable and a pool"},
        {"- {ask: Run, prompt: S}", "1:9: the station sets QC_Run itself"},
        {"- {send: PING, match: '(?P<VERDICT>.)'}", "1:23: the station sets QC_VERDICT itself"},
        {"- {send: PING, match: '(?P<1>.)'}", "1:23: \"1\" is not a name"},
        {"- {send: PING, expect: OK, hint: 'see }'}", "1:34: a '}' is not part of a {name}"},
        {"- {send: PING, reconnect: true, problem: X}", "1:42: \"problem\" is what people read when"},
        // Files.
        {"- {verify: empty, partition: 1}", "1:3: empty is empty: if it must be, add \"empty: true\""},
        {"- {verify: five, partition: 1, sha256: 6994471abb01112afcc18159f6cc74b4f511b99806da59b3caf5a9c173cacfc5}",
         "1:40: five is another file: its SHA-256 is 59944"},
        {"- {verify: five, partition: 1, sha256: 5994471a}", "1:40: expected 64 hexadecimal digits"},
        {"- {send: PING, expect: OK, empty: true}", "1:3: the step has no file"},
        {"- {send: PING, expect: OK, image: five}", "1:35: this is not a firmware image: 5 bytes are too few"},
        {"- {send: PING, expect: OK, image: damaged}", "1:35: this is not a firmware image: "},
        {"- {send: PING, expect: OK, picture: five}", "1:37: expected a picture of at most 1 MiB"},
        {"- {run: ''}", "1:9: a command is missing"},
        {"- {run: x, image: five}", "1:12: unknown key \"image\" in a \"run\" step"},
        {"- {send: BYE, expect: BYE}\n- {run: x}\n- {send: X, expect: X}", "3:3: the session has ended"},
        // Nothing.
        {"- {ask: serial, prompt: S}\n- {send: 'MAC {mac}', match: MAC, take: 4, hint: 'see {x}'}", "="},
        {"- {verify: five, partition: 1, sha256: 5994471ABB01112AFCC18159F6CC74B4F511B99806DA59B3CAF5A9C173CACFC5}",
         "="},
        {"- {verify: empty, partition: 1, empty: true}", "="},
        {"- {send: BYE, expect: BYE}\n- {run: '{ x; }', reconnect: true}\n- {send: X, expect: X}", "="},
        {"- {send: 'X {{', expect: '{{}} {line}', bare: true}\n- {script: script, match: 'a{2,3}\\{b}'}", "="},
    };
    for (const auto &test : cases) {
        const std::string fault = faultsOf(test.plan);
        EXPECT_THAT(fault + "=", HasSubstr(test.fault)) << test.plan;
        EXPECT_EQ(fault.empty(), test.fault[0] == '=') << test.plan << "\n" << fault;
    }
    EXPECT_THAT(faultsOf(std::string(5000, '[')), HasSubstr("nested too deeply"));
}

TEST_F(PlanTest, EveryRunNamesThePlanAndItsFiles) {
    const fs::path path = write(
        "plan.yaml", "- {send: 'VERSION {size}', upload: five, expect: OK}\n- {script: script}\n- {run: sh tool 1}\n");
    write("tool", "");
    const auto started = [&] { return station::newRun(station::loadPlan(path), {}); };
    const RunRecord run = started();
    ASSERT_EQ(run.files.size(), 3U);
    EXPECT_EQ(run.files[1].step, 2U);
    EXPECT_EQ(run.files[2].name, "tool");
    EXPECT_EQ(run.files[0].name, "five");
    EXPECT_EQ(run.files[0].size, 5U);
    EXPECT_EQ(run.files[0].sha256, "5994471abb01112afcc18159f6cc74b4f511b99806da59b3caf5a9c173cacfc5");
    EXPECT_EQ(run.planDigest, started().planDigest);
    write("tool", "exit 1");
    const std::string otherTool = started().planDigest;
    EXPECT_NE(otherTool, run.planDigest);
    write("five", "12346");
    const std::string otherFile = started().planDigest;
    EXPECT_NE(otherFile, otherTool);
    std::ofstream(path, std::ios::app) << "# another text";
    EXPECT_NE(otherFile, started().planDigest);
}

// A wrong character must neither keep the parser at work for ever nor make it take memory without end (the sanitizer
// limits memory). Inserts each character that means something in YAML before every character of the short files, and
// before every line of the long ones.
TEST_F(PlanTest, AWrongCharacterIsReadOrRefused) {
    size_t read = 0, refused = 0;
    const auto load = [&](const std::string &text) {
        try {
            station::parseDocument(text);
            ++read;
        } catch (const station::Fault &) {
            ++refused;
        }
    };
    const std::string characters = ",[]{}:-?#&*!|>'\"%@\n\t x\0\xFF"s;
    for (const char *const name : {"plans/demo.yaml", "plans/faults.yaml", "plans/identity.yaml",
                                   "plans/production.yaml", "plans/session.yaml", "package/line.yaml"}) {
        std::ostringstream content;
        content << std::ifstream(fs::path(SOURCES) / "station" / name).rdbuf();
        const std::string text = content.str();
        ASSERT_NO_THROW(station::parseDocument(text)) << name;
        for (size_t at = 0; at < text.size(); ++at) {
            if (text.size() > 400 && at > 0 && text[at - 1] != '\n') continue;
            for (const char c : characters) load(std::string(text).insert(at, 1, c));
        }
    }
    EXPECT_GT(read, 1000U);
    EXPECT_GT(refused, 1000U);
}

using Texts = std::vector<std::string>;

Texts split(const std::string &text, char separator) {
    Texts parts;
    std::istringstream rest(text);
    for (std::string part; std::getline(rest, part, separator);) parts.push_back(part);
    return parts;
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
        session_.emplace(listener_.accept(Milliseconds(5000)));
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
    const struct {
        const char *steps, *replies, *verdicts, *happened;
        const char *failure;         // in the first step that did not pass
        const char *cause = "unit";  // of a failed run
    } cases[] = {
        {"send: PING, expect: PING 2, required: true|send: X, expect: X|send: Y, expect: Y, always: true", "PING 1;Y",
         "F-P", "PING;Y", "expected \"PING 2\", got \"PING 1\""},
        {"send: X, expect: X|send: Y, expect: Y|ask: lamp, prompt: Lit", "", "F--", "X", "closed the connection",
         "connection"},
        {"send: BYE, expect: BYE, closes: true|ask: lamp, prompt: Lit, match: unit", "BYE", "PP", "BYE;Lit?;Lit!", ""},
        {"send: X, match: 'v=(?P<v>.*)', limits: {v: {max: 2.5, unit: V}}|send: 'X {v}', expect: '{{{v}}}'",
         "v=2.75;{2.75}", "FP", "X;X 2.75", "v is 2.75 V, above 2.5"},
        {"send: X, match: 'v=(?P<v>.*)', limits: {v: {min: 1}}", "v=1e101", "F", "X", "v is no number"},
        {"send: X, match: 'v=(?P<v>.)', retries: 1|send: 'Y {v}', expect: Y", "a;b", "FF", "X;X",
         "\"b\" is not what the plan expects"},
        {"send: X, match: 'v=(?P<v>.)', hint: 'look at {v} and {w}', limits: {v: {max: 2}}|send: X, expect: X", "v=3;X",
         "FP", "X;X", "-> look at 3 and {w}"},
        {"send: X, match: 'a', problem: 'no {{light}}'|run: 'exit 1', problem: X", "b", "FF", "X", "no {light}"},
        {"run: 'exit 1', problem: not admitted", "", "F", "", "not admitted"},
        {"script: script, output: \"1\\n2\\n3\\n\"", "1\n3\n", "F", "exit", "line 2: expected \"2\n\", got \"3\n\""},
        {"script: script, output: \"1\\n2\"", "1\n2\n", "F", "exit", "line 2: expected \"2\", got \"2\n\""},
        {"script: script, match: 'x'", "1\n2\n", "F", "exit", "\"1...\" is not what the plan expects"},
        {"ask: serial, prompt: S, match: '^unit'|send: 'MAC {pool}', match: MAC, take: 3", "MAC 2", "PP",
         "S?;S!;3 pool of unit-7;MAC 02:00:00:00:00:01", ""},
        {"send: REBOOT, reconnect: true|send: PING, expect: PING 2", ";PING 2", "PP", "REBOOT;PING", ""},
        {"send: REBOOT, reconnect: true|send: X, expect: X", "", "F-", "REBOOT", "it did not come back", "connection"},
        {"ask: mac, prompt: A|send: 'MAC {mac}', expect: MAC 4|send: X, expect: X", "X", "PFP", "A?;X",
         "not sent: \"oops\" is not a MAC address", "station"},
        {"ask: serial, prompt: S, match: '^unit'|send: 'MAC {pool}', expect: MAC 2|send: '{pool}', expect: X",
         "MAC 2;X", "PPP", "S?;S!;2 pool of unit-7;MAC 02:00:00:00:00:01;02:00:00:00:00:01", ""},
        {"ask: serial, prompt: S, match: '^unit'|send: 'MAC {none}', expect: MAC 2", "", "PF", "S?;S!",
         "the pool is empty", "station"},
        {"ask: serial, prompt: sleep", "", "F", "sleep?", "nobody is there", "operator"},
        {"ask: serial, prompt: stop", "", "F", "stop?", "the station was stopped", "operator"},
        {"ask: serial, prompt: jolt", "", "P", "jolt?", ""},
        {"ask: serial, prompt: pull|send: X, expect: X", "", "F-", "pull?", "no link: the board has gone",
         "connection"},

        {"send: 'FW KERNEL {size}', upload: five, expect: OK|verify: five, partition: 2",
         "OK;827ccb0eea8a706c4c34a16891f84e7b 0", "PP", "FW KERNEL 512345;#!/bin/sh", ""},
        {"script: script, match: '^(line\\s?)*$'|script: script, match: 'line'|script: script", "long;longer;longer",
         "PFP", "exit;exit;exit", "printed 262145 bytes"},
        {"send: X, match: '(?P<serial>.+)'|send: Y, expect: Y", "taken;Y", "F-", "X", "taken is in work at place 9",
         "operator"},
        {"send: X, match: 'v=(?P<serial>.*)'|send: Y, expect: Y", "v=;Y", "FP", "X;Y", "this is no serial number"},
        {"send: X, match: 'v=(?P<serial>.*)'|send: Y, expect: Y", "v=\xB1;Y", "FP", "X;Y", "this is no serial number"},
        {"ask: serial, prompt: S, match: '^unit'|send: 'MAC {pool}', expect: MAC 2|send: X, match: '(?P<serial>.+)'",
         "MAC 2;other", "PPF", "S?;S!;2 pool of unit-7;MAC 02:00:00:00:00:01;X",
         "is other, and it was tested as unit-7", "operator"},
        {"ask: serial, prompt: S, match: '^unit'|send: X, match: '(?P<serial>.+)'|send: Y, expect: Y", "unit-8", "PF-",
         "S?;S!;X", "is unit-8, and it was tested as unit-7", "operator"},
        {"send: X, match: '(?P<serial>.+)'|ask: serial, prompt: S|send: X, match: '(?P<serial>.+)'", "unit-7;unit-7",
         "PPP", "X;S?;S!;X", ""},
        {"ask: lamp, prompt: L|run: 'grep -q prompt; echo \"v=$QC_lamp\"', match: 'v=(?P<v>.*)'|send: 'X {v}', expect: "
         "X",
         "X", "PPP", "L?;X oops", ""},
        {"ask: serial, prompt: S, match: unit|run: echo unknown; exit 1, required: true|send: 'MAC {pool}', expect: "
         "MAC 2",
         "", "PF-", "S?;S!", "ended with status 1 instead of 0: unknown"},
        {"send: BYE, expect: BYE, closes: true|run: 'echo 2.75; exit 3', status: 3, match: '(?P<v>.*)', limits: {v: "
         "{max: 2.5}}",
         "BYE", "PF", "BYE", "v is 2.75, above 2.5"},
        {"send: BYE, expect: BYE, closes: true|run: test -e five, reconnect: true|send: PING, expect: PING 2",
         "BYE;PING 2", "PPP", "BYE;PING", ""},
        {"send: BYE, expect: BYE, closes: true|run: 'mkdir tried && exit 1; exit 0', retries: 1", "BYE", "PP", "BYE",
         ""},
        {"run: head -c 50000000 /dev/zero, match: ''", "", "F", "", "printed 50000000 bytes"},
        {"run: kill -9 $$", "", "F", "", "ended by signal 9", "station"},
        {"run: ./none", "", "F", "", "cannot run the command, status 127", "station"},
        {"run: '(sh -c \"kill -9 \\$\\$\"); exit $?'", "", "F", "", "cannot run the command, status 137", "station"},
        {"run: 'read -r a b c d e session f < /proc/$$/stat && test $session = $$'", "", "P", "", ""},
        {"run: exit 1, name: pull, retries: 1|send: X, expect: X", "", "F-", "", "no link: the board has gone",
         "connection"},
        {"run: exec 9> lock; flock 9; sleep 1000 & wait, timeout: 0.3|run: flock lock true", "", "FP", "",
         "did not end within 0.3 s", "station"},
        {"ask: serial, prompt: S, match: '^unit'|send: X, match: '(?P<m>.+)', whose: m", "020000000007", "PP",
         "S?;S!;X", ""},
        {"ask: serial, prompt: S, match: '^unit'|send: X, match: '(?P<m>.+)', whose: m|send: Y, expect: Y",
         "02-00-00-00-00-08", "PF-", "S?;S!;X", "this board is unit-8, and not unit-7"},
        {"ask: serial, prompt: S, match: '^unit'|send: X, match: '(?P<m>.+)', whose: m, retries: 1",
         "02:00:00:00:00:09", "PF", "S?;S!;X", "another board had this serial before: look for it"},
        {"ask: serial, prompt: S|send: X, match: '(?P<m>.+)', whose: m", "02:00:00:00:00:09", "PP", "S?;X", ""},
        {"ask: serial, prompt: S|send: X, match: '(?P<m>.+)', whose: m", "none", "PF", "S?;X",
         "\"none\" is not a MAC address"},
        {"ask: serial, prompt: S|send: X, match: 'x(?P<m>.+)?', whose: m", "x", "PF", "S?;X",
         "\"\" is not a MAC address"},
        {"send: X, expect: X, name: stop|send: Y, expect: Y|send: Z, expect: Z, always: true", "X;Z", "P-P", "X;Z",
         "not run: the station was stopped", "operator"},
        {"send: X, expect: X, name: stop|send: Y, expect: Y|run: test $QC_VERDICT = failed, always: true", "X", "P-P",
         "X", "not run: the station was stopped", "operator"},
    };
    std::string lines;
    for (int i = 0; i < 60000; ++i) lines += "line\n";
    for (const auto &test : cases) {
        std::string text;
        for (const std::string &step : split(test.steps, '|')) {
            text += "- {" + step + (step.find("hint:") == std::string::npos ? ", hint: see me}\n" : "}\n");
        }
        const station::Plan plan = station::loadPlan(write("plan.yaml", text), {}, {{}, {"pool", "none"}});
        write("five", "other bytes");
        Texts replies = *test.replies == '\0' ? Texts{""} : split(test.replies, ';');
        std::replace(replies.begin(), replies.end(), "long"s, lines.substr(0, station::kLongestOutput));
        std::replace(replies.begin(), replies.end(), "longer"s, lines.substr(0, station::kLongestOutput + 1));
        Line line;
        RunRecord run = station::newRun(plan, {}), other = station::newRun(plan, {9, "9"});
        const station::Context context{line, line, line.stop, line, line.units};
        line.units.admit(other, "taken", plan, context, nullptr);
        {
            ScriptedBoard board(replies, line);
            run = station::runPlan(board, plan, run, context);
        }
        write("five", "12345");

        std::string verdicts, failure;
        for (const auto &step : run.steps) {
            verdicts += "-PF"[static_cast<size_t>(step.verdict)];
            if (failure.empty() && !step.passed())
                failure = step.failure + (step.hint.empty() ? "" : " -> " + step.hint);
        }
        EXPECT_EQ(verdicts, test.verdicts) << text;
        EXPECT_EQ(run.unit.empty(), !run.variables.contains("serial")) << text;
        EXPECT_EQ(line.happened, *test.happened == '\0' ? "" : test.happened + ";"s) << text;
        EXPECT_THAT(failure, HasSubstr(test.failure)) << text;
        EXPECT_EQ(textOf(run.cause), run.passed() ? "" : test.cause) << text;
        EXPECT_EQ(todoAbout(run) == todoAbout(run.cause), textOf(run.cause) != "unit") << "the plan's hint " << text;
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
    for (auto &step : run.steps) {
        step.verdict = verdict == 'P' ? station::Verdict::kPassed : station::Verdict::kFailed;
    }
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
        std::string verdicts;
        for (const auto &step : run.steps) verdicts += "-PF"[static_cast<size_t>(step.verdict)];
        EXPECT_EQ(verdicts, test.verdicts) << text;
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
