#include "station/line/run.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>

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
    result.verdict = result.failure.empty() ? Verdict::kPassed : Verdict::kFailed;
    result.duration = std::chrono::duration_cast<Milliseconds>(Clock::now() - start);
    return result;
}

RunRecord newRun(const Plan &plan, const Place &place) {
    RunRecord run;
    run.start = WallClock::now();
    run.id = makeRunId(run.start);
    run.plan = plan.name;
    run.place = place;
    for (const Step &step : plan.steps) {
        StepResult &result = run.steps.emplace_back();
        result.title = step.title();
        result.show = step.show;
    }
    return run;
}

RunRecord runPlan(Board &board, const Plan &plan, RunRecord run, const Context &context) {
    bool connected = true;
    for (size_t i = 0; i < plan.steps.size(); ++i) {
        StepResult &result = run.steps[i];
        const StepResult before = result;
        result.failure = "not run: the session had ended";
        if (!connected) continue;
        context.observer.stepStarts(run, i);
        const Progress progress = [&](uint64_t sent, uint64_t total) {
            context.observer.progress(run, i, sent, total);
        };
        result = runStep(board.session(), plan.steps[i], connected, progress);
        result.title = before.title;
        result.show = before.show;
        context.observer.stepEnds(run, i);
        context.records.stepEnded(run, i);
    }
    run.end = WallClock::now();
    return run;
}

}  // namespace station
