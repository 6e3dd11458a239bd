#include "station/line/run.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

#include "image/md5.h"
#include "station/wire/script.h"

namespace station {
namespace {

namespace fs = std::filesystem;

// One step while it runs.
struct Running {
    Session &session;
    const Step &step;
    const Progress &progress;
    Clock::time_point deadline;

    Milliseconds left() const {
        return std::max(std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()), Milliseconds(0));
    }
};

void runCommand(const Running &running, StepResult &result) {
    const Step &step = running.step;
    if (step.bare) {
        running.session.sendBytes(step.send);
    } else {
        running.session.sendCommand(step.send);
    }
    if (step.file) running.session.sendFile(*step.file, running.progress);
    result.reply = running.session.receiveReply(running.left());
    result.failure = step.expected.judge(result.reply);
    if (!step.closes || !result.failure.empty()) return;
    running.session.expectClose(running.left());
}

void runScriptStep(const Running &running, StepResult &result) {
    std::ostringstream content;
    content << std::ifstream(*running.step.file, std::ios::binary).rdbuf();
    const ScriptResult script = runScript(running.session, content.str(), running.deadline, running.progress);
    result.reply = script.output;
    result.failure = running.step.expected.judge(script.output);
    if (script.status != running.step.status) {
        result.failure =
            fmt::format("ended with status {} instead of {}: {}", script.status, running.step.status, script.output);
    }
}

void runVerify(const Running &running, StepResult &result) {
    const Step &step = running.step;
    const uintmax_t size = fs::file_size(*step.file);
    const ScriptResult script =
        runScript(running.session, digestScript(step.partition, size), running.deadline, running.progress);
    std::istringstream lines(script.output);
    std::string digest;
    long written = -1;  // bytes behind the file that are not erased
    if (!(lines >> digest >> written)) {
        result.failure = fmt::format("the board could not read the partition: {}", script.output);
        return;
    }
    const std::string expected = fwimage::md5OfFile(*step.file);
    result.reply = fmt::format("{} bytes, MD5 {}", size, digest);
    if (digest != expected) {
        result.failure = fmt::format("the partition's digest is {}, the file's {}", digest, expected);
    } else if (step.erased && written != 0) {
        result.failure = fmt::format("{} bytes behind the file are not erased", written);
    }
}

void runKind(const Running &running, StepResult &result) {
    switch (running.step.kind) {
    case Kind::kCommand:
        return runCommand(running, result);
    case Kind::kScript:
        return runScriptStep(running, result);
    case Kind::kVerify:
        return runVerify(running, result);
    }
}

}  // namespace

StepResult runStep(Session &session, const Step &step, bool &connected, const Progress &progress) {
    StepResult result;
    const auto start = Clock::now();
    try {
        session.setSendDeadline(start + step.timeout);
        runKind({session, step, progress, start + step.timeout}, result);
        if (step.closes) connected = false;
    } catch (const std::exception &error) {
        result.failure = error.what();
        connected = false;
    }
    result.passed = result.failure.empty();
    result.duration = std::chrono::duration_cast<Milliseconds>(Clock::now() - start);
    return result;
}

size_t BoardResult::failures() const {
    return static_cast<size_t>(
        std::count_if(steps.begin(), steps.end(), [](const auto &step) { return !step.passed; }));
}

BoardResult runPlan(Session &session, const Plan &plan, int board, Observer &observer) {
    BoardResult result{board, session.peer(), WallClock::now(), {}, {}};
    observer.boardConnects(board, result.peer);
    bool connected = true;
    for (const Step &step : plan.steps) {
        observer.stepStarts(board, step);
        StepResult &last = result.steps.emplace_back();
        last.failure = "not run: the session had ended";
        const Progress progress = [&](uint64_t sent, uint64_t total) { observer.uploads(board, sent, total); };
        if (connected) last = runStep(session, step, connected, progress);
        observer.stepEnds(board, step, last);
    }
    result.end = WallClock::now();
    observer.boardEnds(result);
    return result;
}

std::vector<BoardResult> runBoards(Listener &listener, const Plan &plan, int boards, Milliseconds wait,
                                   Observer &observer) {
    const auto deadline = Clock::now() + wait;
    std::vector<BoardResult> results(static_cast<size_t>(boards));
    std::vector<std::thread> threads;
    for (int board = 1; board <= boards; ++board) {
        BoardResult &result = results[static_cast<size_t>(board) - 1];
        try {
            const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
            threads.emplace_back([&result, &plan, &observer, board, session = listener.accept(left)]() mutable {
                result = runPlan(session, plan, board, observer);
            });
        } catch (const SessionError &error) {
            result = {board, "", WallClock::now(), WallClock::now(), {}};
            result.steps.assign(plan.steps.size(), {false, "", error.what(), Milliseconds(0)});
            observer.boardEnds(result);
        }
    }
    for (std::thread &thread : threads) thread.join();
    return results;
}

}  // namespace station
