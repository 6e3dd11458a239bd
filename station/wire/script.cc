#include "station/wire/script.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "station/base/text.h"
#include "station/wire/listener.h"

namespace station {
namespace {

// How much later than the reply the result may connect, which the board began before it.
constexpr Milliseconds kResultGrace{1000};

// The script follows the wrapper, which finds it at the byte after its own end. The board uses the station's fixed
// address, whatever this machine calls it. It connects before the script runs: when the station is killed meanwhile,
// the connection ends, and the board's wait with it. If it connected only afterwards, its attempt could last for
// minutes: on a station with one address on many cards the refusal leaves by another card.
std::string wrapperFor(const std::string &exports, uint16_t port, size_t ownLength) {
    return fmt::format("#!/bin/sh\n"
                       "{}"
                       "script=/tmp/fabtestd.script\n"
                       "output=/tmp/fabtestd.output\n"
                       "{{ tail -c +{:08} \"$0\" > $script; chmod 755 $script\n"
                       "$script < /dev/null > $output 2>&1; echo $?; cat $output; }} | nc {} {}\n"
                       "exit 0\n",
                       exports, ownLength + 1, kDefaultAddress, port);
}

// Between single quotes the shell changes nothing.
std::string wrap(const std::string &script, const std::map<std::string, std::string> &variables, uint16_t port) {
    std::string exports;
    for (const auto &[name, value] : variables)
        exports += fmt::format("export QC_{}='{}'\n", name, replaced(value, '\'', "'\\''"));
    return wrapperFor(exports, port, wrapperFor(exports, port, 0).size()) + script;
}

Milliseconds until(Clock::time_point deadline) {
    return std::max(std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()), Milliseconds(0));
}

// Accepts the result's connection, which is the board's alone: whatever else connects there is dropped. The reply on
// `session` comes when the wrapper has ended, so the result's connection is there before it, or never.
Session acceptResult(const Listener &results, const Session &session, Clock::time_point deadline) {
    bool replied = false;
    while (Clock::now() < deadline) {
        pollfd polled[] = {{results.descriptor(), POLLIN, 0}, {replied ? -1 : session.descriptor(), POLLIN, 0}};
        poll(polled, 2, pollLimit(deadline));
        if (polled[1].revents != 0) {
            replied = true;
            deadline = std::min(deadline, Clock::now() + kResultGrace);
        }
        std::optional<Session> result = polled[0].revents != 0 ? results.take() : std::nullopt;
        if (result && result->peerAddress() == session.peerAddress()) return std::move(*result);
    }
    if (session.gone()) throw SessionError("the board closed the connection");
    if (!replied) throw SessionError("the script did not end in time");
    throw WrongReply("the board sent no result of the script: has it no \"nc\"?");
}

}  // namespace

ScriptResult receiveResult(Session &&connection, Clock::time_point deadline) {
    constexpr size_t kLongestStatus = 4;  // "255" and the line end
    ScriptResult result;
    const std::string bytes = connection.receiveAll(until(deadline), kLongestStatus + kLongestOutput, result.cut);
    const size_t lineEnd = bytes.find('\n');
    const auto [behind, error] = std::from_chars(bytes.data(), bytes.data() + bytes.size(), result.status);
    const bool whole = error == std::errc() && lineEnd != std::string::npos && behind == bytes.data() + lineEnd;
    if (!whole || result.status < 0 || result.status > 255) {
        throw WrongReply("the script's result is not complete");
    }
    result.output = bytes.substr(lineEnd + 1, kLongestOutput);
    result.cut += bytes.size() - (lineEnd + 1) - result.output.size();
    return result;
}

ScriptResult runScript(Session &session, const std::string &script, Clock::time_point deadline,
                       const std::map<std::string, std::string> &variables, const Progress &progress) {
    const Listener results(localAddress(session.descriptor()), 0, session.interface());
    const std::string payload = wrap(script, variables, results.port());
    const std::string command = fmt::format("SHELL {}", payload.size());
    session.sendCommand(command);
    session.sendBytes(payload, progress);
    ScriptResult result = receiveResult(acceptResult(results, session, deadline), deadline);
    const std::string reply = session.receiveReply(until(deadline));
    if (reply != command) throw WrongReply(fmt::format("expected \"{}\", got \"{}\"", command, reply));
    return result;
}

std::string digestScript(int partition, uint64_t size) {
    return fmt::format("#!/bin/sh\n"
                       "head -c {0} /dev/mtd{2} | md5sum | cut -d ' ' -f 1\n"
                       "tail -c +{1} /dev/mtd{2} | tr -d '\\377' | wc -c\n",
                       size, size + 1, partition);
}

}  // namespace station
