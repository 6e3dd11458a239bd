#include "station/plan/review.h"

#include "station/plan/commands.h"

namespace station {

void Course::warn(const YAML::Mark &mark, const std::string &text) { warnings_.push_back({mark, "warning: " + text}); }

void Course::followSession(const Step &step, const YAML::Mark &mark) {
    if (step.needsBoard() && over_) {
        faults_.push_back({mark, "the session has ended before this step; if the board comes back, give the step that"
                                 " ends it \"reconnect: true\""});
    } else if (step.needsBoard() && rebooting_) {
        warn(mark, "the board may be gone before this step: give the REBOOT \"reconnect: true\", or make it the last"
                   " step");
    }
    if (!step.needsBoard() && !step.reconnect) return;
    const Role role = boardCommand(step.send).role;
    over_ = (role == Role::kEnd || step.closes) && !step.reconnect;
    rebooting_ = role == Role::kReboot && !step.reconnect;
    pinged_ = (pinged_ && !step.reconnect) || role == Role::kPing;
}

void Course::follow(const Step &step, const YAML::Mark &mark, bool timed) {
    followSession(step, mark);
    if (step.kind == Kind::kVerify) written_.erase(step.partition);
    const BoardCommand &command = boardCommand(step.send);  // without one: a plain one
    const std::string expected =
        step.expected.text.value_or("") + (step.expected.match ? step.expected.match->text() : "");
    if (step.kind == Kind::kCommand && command.word.empty() && !step.send.starts_with('{') &&
        expected.find("UNKNOWN") == std::string::npos)
        warn(mark, "boards know no such command, and reply UNKNOWN: commands are written as in docs/protocol.md");
    if (step.file && step.kind == Kind::kScript && step.file->bytes->find("\r\n") < step.file->bytes->find('\0'))
        warn(mark, "the script has Windows line ends, which the board's shell takes as part of each line: save it with"
                   " Unix line ends");
    if (command.role == Role::kAddress && namesIn(step.send).empty())
        warn(mark, "every board of this plan gets the same MAC address");
    if (command.role == Role::kReport && step.expected && !pinged_)
        warn(mark, "every board would pass: without a PING earlier in its session, the report names no failed check");
    if (command.role == Role::kReset) reset_ = mark;
    if (command.role == Role::kWait) reset_.reset();
    if (command.partition > 0) written_[command.partition] = mark;
    if (command.takesLong && !timed)
        warn(mark, "10 s may not be enough for this, and would leave it half done: give a \"timeout\"");
}

void Course::end() {
    for (const auto &[partition, mark] : written_)
        warn(mark, "its OK does not say that it was written: no \"verify\" step reads it back");
    if (reset_) warn(*reset_, "nothing waits for the end of the reset: send WAITING");
}

}  // namespace station
