#pragma once
// A store on either of its databases, for tests. PostgreSQL is Debian's, in a folder and on a socket of its own.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "station/store/store_records.h"
#include "tests/folder.h"

namespace station {

namespace fs = std::filesystem;

inline pid_t start(const std::function<void()> &work) {
    const pid_t child = ::fork();
    if (child == 0) work();
    return child;
}

inline void finish(pid_t process, int signal) {
    ::kill(process, signal);
    ::waitpid(process, nullptr, 0);
}

inline std::string refusal(const std::function<void()> &call) try {
    return call(), "";
} catch (const std::runtime_error &error) {
    return error.what();
}

// A database that can be stopped, and a folder for it that is gone with it.
class Store : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        shared_ = std::string(GetParam()) == "PostgreSQL";
        store_ = shared_ ? fmt::format("postgresql:///postgres?host={}&user=station", folder_.string())
                         : (folder_ / "line.db").string();
        comeBack();
    }
    void TearDown() override {
        if (shared_ && server_) goAway();
    }

    // Takes the store away: another process locks the SQLite file, or PostgreSQL stops.
    void goAway() {
        if (shared_) return finish(std::exchange(server_, 0), SIGINT);
        stranger_ = std::make_unique<Database>(store_);
        while (!refusal([&] { stranger_->run("BEGIN EXCLUSIVE"); }).empty()) continue;
    }
    void comeBack() {
        stranger_.reset();
        const auto serve = [this] { ::execl(SOURCES "/tests/postgresql", "postgresql", folder_.c_str(), nullptr); };
        if (shared_) server_ = start(serve);
        for (int i = 0; i < 600 && !refusal([&] { Database(store_).run("SELECT 1"); }).empty(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::unique_ptr<StoreRecords> station() {
        auto records = std::make_unique<StoreRecords>(store_, folder_ / "spool", nullptr);
        records->tell([this](const std::string &text) { said_ += text + "\n"; });
        return records;
    }

    const Folder made_;
    const fs::path folder_ = made_.path;
    std::string store_, said_;
    bool shared_ = false;
    pid_t server_ = 0;
    std::unique_ptr<Database> stranger_;
};
inline RunRecord runOf(const std::string &serial) {
    RunRecord run;
    run.start = run.end = WallClock::time_point(std::chrono::floor<std::chrono::milliseconds>(WallClock::now()));
    run.id = makeRunId(run.start);
    run.plan = "line";
    run.place = {3, "left"};
    run.unit = serial;
    run.steps.resize(2);
    run.steps[0].title = run.steps[0].planned = "PING";
    run.steps[1].title = run.steps[1].planned = "MAC {mac}";
    return run;
}

// Returns a run in which all has a value, and whose second step was not run.
inline RunRecord fullRun() {
    RunRecord run = runOf("A");
    run.end += std::chrono::milliseconds(1234);
    run.station = {"pc", "0123456789abcdef"};
    run.peer = "192.168.1.1:1024%line1";
    run.failure = "after: \"no\"";
    run.variables = {{"serial", "A"}, {"text", "\u00e9\n\\"}};
    run.planDigest = std::string(64, 'a');
    run.files = {{1, "kernel.bin", 5'000'000'000, std::string(64, 'b')}, {2, "root.bin", 0, std::string(64, 'c')}};
    run.operatorName = "Eve";
    run.reference = true;
    run.cause = Cause::kConnection;
    StepResult step = run.steps[0];
    step.title = "PING of A";
    step.reply = "a\u00e9b";
    step.cut = 5000000000;
    step.failure = "f";
    step.hint = "h";
    step.verdict = Verdict::kFailed;
    step.cause = Cause::kConnection;
    step.offset = std::chrono::milliseconds(1001);
    step.duration = std::chrono::milliseconds(2002);
    step.attempts = 3;
    step.measurements = {{"amps", 1e-30, std::nullopt, 2, "", true}, {"volts", 0.1, 1, std::nullopt, "V", false}};
    run.steps[0] = step;
    run.steps[1].failure = "not run: a required step had failed";
    step.verdict = Verdict::kPassed;
    run.steps.push_back(step);
    return run;
}

inline void endSteps(Records &records, RunRecord &run, std::vector<Verdict> verdicts, double volts = 2) {
    for (size_t i = 0; i < verdicts.size(); ++i) {
        run.steps[i].verdict = verdicts[i];
        run.steps[i].title += " of " + run.unit;  // its variables filled in
        run.steps[i].reply = std::string("no \xFF text\0", 10);
        run.steps[i].measurements = {{"volts", volts, 1, 3, "V", true}};
        records.stepEnded(run, i);
    }
    records.ends(run);
}

inline std::vector<std::string> cells(const Table &table, size_t row) {
    std::vector<std::string> texts;
    for (const Value &cell : table.rows.at(row)) {
        texts.push_back(cell.value_or("-"));  // where one database says 50, the other may say 50.0
        if (texts.back().ends_with(".0")) texts.back().resize(texts.back().size() - 2);
    }
    return texts;
}

}  // namespace station
