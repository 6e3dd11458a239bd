#include "station/run.h"

#include <fmt/format.h>

#include <algorithm>

namespace station {
namespace {

std::string judge(const Step &step, const std::string &reply) {
    if (step.expect && reply != *step.expect) return fmt::format("expected \"{}\", got \"{}\"", *step.expect, reply);
    if (step.match && !std::regex_search(reply, *step.match)) {
        return fmt::format("expected a match of \"{}\", got \"{}\"", step.matchText, reply);
    }
    return {};
}

}  // namespace

StepResult runStep(Session &session, const Step &step, bool &connected, const Progress &progress) {
    StepResult result;
    const auto start = Clock::now();
    const auto left = [&] {
        const auto used = std::chrono::duration_cast<Milliseconds>(Clock::now() - start);
        return std::max(step.timeout - used, Milliseconds(0));
    };
    try {
        if (step.bare) {
            session.sendBytes(step.send);
        } else {
            session.sendCommand(step.send);
        }
        if (step.upload) session.sendFile(*step.upload, progress);
        result.reply = session.receiveReply(left());
        result.failure = judge(step, result.reply);
        if (step.closes) {
            session.expectClose(left());
            connected = false;
        }
    } catch (const SessionError &error) {
        result.failure = error.what();
        connected = false;
    }
    result.passed = result.failure.empty();
    result.duration = std::chrono::duration_cast<Milliseconds>(Clock::now() - start);
    return result;
}

}  // namespace station
