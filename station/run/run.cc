#include "station/run/run.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <sstream>
#include <thread>
#include <utility>

#include "station/base/mac.h"
#include "station/base/text.h"
#include "station/plan/commands.h"
#include "station/run/hooks.h"
#include "station/wire/listener.h"
#include "station/wire/script.h"

namespace station {
namespace {

constexpr Milliseconds kRetryPause{1000};
constexpr Milliseconds kProgressPause{100};
constexpr Milliseconds kFlicker{1500};  // without a link, after which the board has gone
constexpr Milliseconds kGlance{50};     // while it is not known yet
constexpr Milliseconds kTwice{1000};    // in which a scanner repeats a label whose trigger was pressed twice
constexpr char kUnit[] = "serial";      // the variable that is the unit

// The state of a run in work.
struct Course {
    Board &board;
    const Plan &plan;
    RunRecord &run;
    const Context &context;
    Clock::time_point start = Clock::now();
    bool connected = true;
    bool taken = false;                // something of a pool, for the unit
    bool refused = false;              // the unit that was named last
    Clock::time_point linked = start;  // when the cable was last seen with a link
    std::string over = {};             // why only steps with "always" are run; empty: all are
    std::vector<Mac> given = {};       // the addresses that the board was told to take
    std::optional<Mac> address = board.session().hardwareAddress();  // of the board that is connected, or was last
};

// One attempt of a step, with its texts filled in.
struct Attempt {
    Course &course;
    const Step &step;
    size_t index;
    StepResult &result;
    Clock::time_point deadline;
    std::string command = {};
    std::string prompt = {};
    Expectation expected = {};
    Variables groups = {};  // what the match has found

    Session &session() const { return course.board.session(); }
    Milliseconds left() const {
        return std::max(std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()), Milliseconds(0));
    }
    void judge(const std::string &text) { result.failure = expected.judge(text, groups); }
    // Returns a callback that tells the observer, at most ten times a second and at the end.
    Progress progress() const {
        return [this, told = Clock::time_point{}](uint64_t sent, uint64_t total) mutable {
            if (sent < total && Clock::now() - told < kProgressPause) return;
            told = Clock::now();
            course.context.observers.tell(&Observer::progress, course.run, index, sent, total);
        };
    }
};

// Takes what the step needs from the pools, once per run. It is recorded as this unit's before it is sent.
void take(const Attempt &attempt) {
    RunRecord &run = attempt.course.run;
    for (const Taken &taken : attempt.step.takes) {
        if (run.variables.contains(taken.pool)) continue;
        if (run.unit.empty()) throw std::invalid_argument("not sent: nobody said the unit's {serial}");
        const auto rows = attempt.course.context.records.bind(taken.pool, run, taken.count);
        attempt.course.taken = true;
        run.variables[taken.pool] = rows.at(0);
        for (size_t i = 1; i < rows.size(); ++i) run.variables[fmt::format("{}_{}", taken.pool, i + 1)] = rows[i];
    }
}

// Returns the variables that the step's texts may name.
Variables valuesOf(const Step &step, const RunRecord &run) {
    Variables values = step.known;
    values.insert(run.variables.begin(), run.variables.end());
    return values;
}

// Fills in the step's texts, and checks the command once more, now that it is complete.
void prepare(Attempt &attempt) {
    const Step &step = attempt.step;
    take(attempt);
    const Variables values = valuesOf(step, attempt.course.run);
    attempt.result.title = step.title(values);
    attempt.command = expand(step.send, values);
    attempt.prompt = expand(step.prompt, values);
    attempt.expected = step.expected.with(values);
    if (step.kind != Kind::kCommand) return;
    const auto payload = step.file ? std::optional<uint64_t>(step.file->bytes->size()) : std::nullopt;
    const std::string fault = faultOf({attempt.command, true, payload, step.bare});
    if (!fault.empty()) throw std::invalid_argument("not sent: " + fault);
}

// Notes the addresses that the command has given the board, from the first one on.
void noteAddresses(const Attempt &attempt) {
    if (boardCommand(attempt.command).role != Role::kAddress) return;
    const std::string text = attempt.command.substr(attempt.command.find(' ') + 1);
    const Mac first = text.find(':') == std::string::npos ? std::stoll(text) : parseMac(text).value_or(0);
    const int count = addressesIn(attempt.command, attempt.result.reply);
    for (int i = 0; i < std::clamp(count, 1, 256); ++i) attempt.course.given.push_back(first + i);
}

void runCommand(Attempt &attempt) {
    const Step &step = attempt.step;
    if (step.bare) {
        attempt.session().sendBytes(attempt.command);
    } else {
        attempt.session().sendCommand(attempt.command);
    }
    if (step.file) attempt.session().sendBytes(*step.file->bytes, attempt.progress());
    // A step without an expectation waits for no reply: the board may be gone before it.
    if (!step.expected) return;
    attempt.result.reply = attempt.session().receiveReply(attempt.left());
    attempt.judge(attempt.result.reply);
    noteAddresses(attempt);
    if (step.closes && attempt.result.failure.empty()) attempt.session().expectClose(attempt.left());
}

// Judges a script or a command by what it has printed and by its exit status.
void judgeOutput(Attempt &attempt, int status) {
    StepResult &result = attempt.result;
    const int wanted = attempt.step.status;
    attempt.judge(result.reply);
    if (result.cut > 0 && attempt.step.expected) {
        result.failure = fmt::format("printed {} bytes; it can be judged by at most {}",
                                     result.reply.size() + result.cut, kLongestOutput);
    } else if (status != wanted) {
        const std::string &problem = attempt.expected.problem;
        result.failure = !problem.empty() ? problem
                                          : fmt::format("ended with status {} instead of {}: {}", status, wanted,
                                                        shorten(result.reply, kQuoted));
    }
}

void runScriptStep(Attempt &attempt) {
    ScriptResult script = runScript(attempt.session(), *attempt.step.file->bytes, attempt.deadline,
                                    attempt.course.run.variables, attempt.progress());
    attempt.result.reply = std::move(script.output);
    attempt.result.cut = script.cut;
    judgeOutput(attempt, script.status);
}

// Returns true for a status with which the shell says that a program cannot be run or, above 128, which signal ended
// it. A program's own status can be the same.
bool isShells(int status) { return status == 126 || status == 127 || (status > 128 && status < 160); }

void runOnStation(Attempt &attempt) {
    StepResult &result = attempt.result;
    const Hook command{attempt.step.run, attempt.left(), attempt.course.plan.folder};
    const int status = runShell(command, attempt.course.run, [&](std::string_view part) {
        const size_t kept = std::min(part.size(), kLongestOutput - result.reply.size());
        result.reply += part.substr(0, kept);
        result.cut += part.size() - kept;
    });
    if (isShells(status) && status != attempt.step.status) {
        throw std::runtime_error(
            fmt::format("the station cannot run the command, status {}: {}", status, shorten(result.reply, kQuoted)));
    }
    judgeOutput(attempt, status);
}

void runVerify(Attempt &attempt) {
    const Step &step = attempt.step;
    StepResult &result = attempt.result;
    const size_t size = step.file->bytes->size();
    const ScriptResult script =
        runScript(attempt.session(), digestScript(step.partition, size), attempt.deadline, {}, attempt.progress());
    std::istringstream lines(script.output);
    std::string digest;
    long written = -1;  // bytes after the file that are not erased
    if (!(lines >> digest >> written) || digest.size() != step.file->md5.size()) {
        result.failure = fmt::format("the board could not read the partition: {}", shorten(script.output, kQuoted));
        return;
    }
    result.reply = fmt::format("{} bytes, MD5 {}", size, digest);
    if (digest != step.file->md5) {
        result.failure = fmt::format("the partition's digest is {}, the file's {}", digest, step.file->md5);
    } else if (step.erased && written != 0) {
        result.failure = fmt::format("{} bytes after the file are not erased", written);
    }
}

// Accepts UTF-8 without control characters only, so that the serial number is the same in every record.
bool isSerial(const std::string &text) {
    const auto isControl = [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; };
    return !text.empty() && asUtf8(text) == text && std::ranges::none_of(text, isControl);
}

// Ends the plan of a board that is not the run's unit. Removes the unit from the run unless something was taken for it.
void disown(Course &course) {
    course.refused = true;
    if (course.taken) return;
    course.run.variables.erase(kUnit);
    course.context.units.release(course.run, course.context.records);
}

// Makes the run one of this unit. Returns an empty text, or why it is refused; the plan then ends, unless the step
// names another unit. A run never changes its unit: the label and the board must agree. `unconfirmed`: see Units.
std::string nameUnit(Course &course, const std::string &serial, std::string *unconfirmed = nullptr) {
    RunRecord &run = course.run;
    course.refused = false;
    if (!isSerial(serial)) return fmt::format("this is no serial number: \"{}\"", shorten(serial, kQuoted));
    if (serial == run.unit) return {};
    if (run.unit.empty()) {
        std::string why = course.context.units.admit(run, serial, course.plan, course.context, unconfirmed);
        course.refused = !why.empty();
        return why;
    }
    if (unconfirmed != nullptr) return fmt::format("this is the board of {}: scan its own label", run.unit);
    std::string why =
        fmt::format("the board says that it is {}, and it was tested as {}: compare the labels", serial, run.unit);
    disown(course);
    return why;
}

// Returns true when the board has closed the session, does not answer any more, or has lost its link for good.
bool hasGone(Course &course) {
    if (!course.connected) return false;
    if (course.board.linked()) course.linked = Clock::now();
    return course.board.session().gone() || Clock::now() - course.linked > kFlicker;
}

// Returns why no answer is needed any more; empty: one is. An answer for a board that was taken away would otherwise go
// to the next one.
std::string reasonNotToAsk(Course &course) {
    if (hasGone(course)) return "the board has gone before the operator answered";
    if (!course.context.stop.requested()) return {};
    course.run.interrupted = true;
    return "the station was stopped before the operator answered";
}

// Returns the operator's answer. Waits until the cable has a link: only then is the answer certainly for this board.
std::string answerTo(Attempt &attempt, const std::string &problem) try {
    Course &course = attempt.course;
    const auto needless = [&] { return reasonNotToAsk(course); };
    std::string answer =
        course.context.operators.ask(course.run, attempt.index, attempt.prompt, problem, attempt.deadline, needless);
    while (course.connected && !course.board.linked() && !hasGone(course)) std::this_thread::sleep_for(kGlance);
    if (hasGone(course)) throw NoAnswer(needless());
    return answer;
} catch (const NoAnswer &why) {
    if (hasGone(attempt.course)) throw SessionError(why.what());
    throw;
}

// Repeats the question until the answer is right: people mistype, and scanners read the wrong label.
void runAsk(Attempt &attempt) {
    const Context &context = attempt.course.context;
    StepResult &result = attempt.result;
    std::string problem, unconfirmed;
    context.observers.tell(&Observer::asks, attempt.course.run, attempt.index, attempt.prompt);
    while (Clock::now() < attempt.deadline) {
        const auto asked = Clock::now();
        result.reply = trim(answerTo(attempt, problem));
        if (!unconfirmed.empty() && result.reply == unconfirmed && Clock::now() < asked + kTwice) continue;
        attempt.judge(result.reply);
        if (!result.failure.empty() && attempt.expected.problem.empty()) {
            result.failure =
                fmt::format("\"{}\" does not look right: scan or type it again", shorten(result.reply, kQuoted));
        }
        problem = result.reply.empty() ? "an answer is needed" : std::exchange(result.failure, "");
        if (problem.empty() && attempt.step.ask == kUnit)
            problem = nameUnit(attempt.course, result.reply, &unconfirmed);
        if (!problem.empty()) continue;
        attempt.groups[attempt.step.ask] = result.reply;
        return;
    }
    throw NoAnswer("nobody answered in time; the last answer: " + problem);
}

// The functions that run a step, in the order of Kind.
constexpr std::array<void (*)(Attempt &), 5> kRunners = {runCommand, runScriptStep, runVerify, runAsk, runOnStation};

constexpr double kLargest = 1e100;  // of a measured value: a database adds up their squares

// Records a measured value. Returns what is wrong with it; empty: nothing.
std::string measure(const Limit &limit, const std::string &text, std::vector<Measurement> &measurements) {
    double value = 0;
    const char *const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data() + (text.starts_with('+') ? 1 : 0), end, value);
    if (error != std::errc() || behind != end || !(std::abs(value) <= kLargest)) {
        return fmt::format("{} is no number: \"{}\"", limit.group, shorten(text, kQuoted));
    }
    const bool low = limit.min && value < *limit.min, high = limit.max && value > *limit.max;
    measurements.push_back({limit.group, value, limit.min, limit.max, limit.unit, !low && !high});
    if (!low && !high) return {};
    return fmt::format("{} is {}{}{}, {} {}", limit.group, shorten(text, kQuoted), limit.unit.empty() ? "" : " ",
                       limit.unit, low ? "below" : "above", low ? *limit.min : *limit.max);
}

// Checks the match's groups against the limits, and keeps them as variables for later steps.
void keep(Attempt &attempt) {
    RunRecord &run = attempt.course.run;
    std::string &failure = attempt.result.failure;
    const auto fail = [&](const std::string &text) { failure += (failure.empty() ? "" : "; ") + text; };
    if (!failure.empty() && attempt.groups.empty()) return;
    for (const Limit &limit : attempt.step.limits) {
        const std::string fault = measure(limit, attempt.groups[limit.group], attempt.result.measurements);
        if (!fault.empty()) fail(fault);
    }
    for (const auto &[name, value] : attempt.groups) {
        if (value.size() > kLongestValue) fail(fmt::format("{} has more than {} bytes", name, kLongestValue));
        const std::string kept = value.substr(0, kLongestValue);
        const std::string fault = name == kUnit ? nameUnit(attempt.course, kept) : "";
        if (fault.empty()) {
            run.variables[name] = kept;
        } else {
            fail(fault);
            if (attempt.course.refused) attempt.result.cause = Cause::kOperator;
        }
    }
}

// Returns why a board with this address cannot be the run's unit; empty when it can.
std::string faultOfAddress(const RunRecord &run, const std::string &address, Records &records) {
    const AddressOwner owner = records.ownerOf(address, run);
    if (owner.unit == run.unit || (owner.unit.empty() && !owner.hasOthers)) return {};
    if (owner.unit.empty()) {
        return fmt::format("{} has other addresses than {}: another board had this serial before: look for it",
                           run.unit, address);
    }
    return fmt::format("this board is {}, and not {}: it has the address {}. Compare the labels", owner.unit, run.unit,
                       address);
}

// Compares the address that the board reports with those of the unit.
void checkOwner(Attempt &attempt) try {
    const RunRecord &run = attempt.course.run;
    std::string &failure = attempt.result.failure;
    if (attempt.step.whose.empty() || !failure.empty()) return;
    const std::string &reported = attempt.groups[attempt.step.whose];
    const auto mac = parseMac(reported);
    if (!mac) {
        failure = fmt::format("\"{}\" is not a MAC address", shorten(reported, kQuoted));
    } else if (run.unit.empty()) {
        failure = "nobody said the unit's {serial}";
    } else {
        failure = faultOfAddress(run, formatMac(*mac), attempt.course.context.records);
        if (!failure.empty()) disown(attempt.course);
    }
} catch (const RecordsError &error) {
    attempt.result.failure = error.what();
    attempt.result.cause = Cause::kStation;
}

// Returns whose fault it is that a step could not be done. What a step found wrong is the unit's fault.
Cause causeOf(const std::exception &error, const Board &board) {
    const bool session = dynamic_cast<const SessionError *>(&error) != nullptr;
    if (session && !board.linked()) return Cause::kConnection;
    if (dynamic_cast<const WrongReply *>(&error) != nullptr) return Cause::kUnit;
    if (dynamic_cast<const ListenError *>(&error) != nullptr) return Cause::kStation;
    if (dynamic_cast<const NoAnswer *>(&error) != nullptr) return Cause::kOperator;
    return session ? Cause::kConnection : Cause::kStation;
}

void fail(Attempt &attempt, const std::exception &error) {
    const Board &board = attempt.course.board;
    attempt.result.cause = causeOf(error, board);
    const bool cable = attempt.result.cause == Cause::kConnection && !board.linked();
    attempt.result.failure = fmt::format("{}{}", cable ? "the cable has no link: " : "", error.what());
}

// Throws when the board has gone while the station judged it: what was found says nothing of the unit.
void excuse(Attempt &attempt) {
    Course &course = attempt.course;
    const std::string &failure = attempt.result.failure;
    if (attempt.step.kind != Kind::kRun || attempt.step.reconnect || failure.empty() || !course.connected) return;
    while (!course.board.linked() && !hasGone(course)) std::this_thread::sleep_for(kGlance);
    if (hasGone(course)) throw SessionError("the board has gone: " + failure);
}

void exchange(Attempt &attempt) try {
    kRunners[static_cast<size_t>(attempt.step.kind)](attempt);
    keep(attempt);
    checkOwner(attempt);
    excuse(attempt);
    if (attempt.step.closes) attempt.course.connected = false;
} catch (const std::exception &error) {
    fail(attempt, error);
    if (attempt.step.needsBoard() || hasGone(attempt.course)) attempt.course.connected = false;
}

// Locally administered addresses are often made up at each start.
bool isFixed(const std::optional<Mac> &address) {
    return address && isIndividual(*address) && (*address >> 41 & 1) == 0;
}

// Returns true if the board may come back with this address: with its own, or one that it was given, by a MAC command
// or by a script that knows it as a variable.
bool mayReturnAs(const Course &course, const std::optional<Mac> &after) {
    if (course.address == after || !isFixed(course.address) || !isFixed(after)) return true;
    const auto isAfter = [&](const auto &variable) { return parseMac(variable.second) == after; };
    return std::ranges::count(course.given, *after) > 0 || std::ranges::any_of(course.run.variables, isAfter);
}

// Another board at the same cable must not get this one's verdict.
void reconnect(Attempt &attempt) try {
    Course &course = attempt.course;
    course.connected = false;
    course.board.reconnect(attempt.deadline);
    const std::optional<Mac> after = attempt.session().hardwareAddress();
    course.connected = mayReturnAs(course, after);
    if (course.connected) {
        if (after) course.address = after;
    } else if (attempt.result.failure.empty()) {
        attempt.result.cause = Cause::kOperator;
        attempt.result.failure = fmt::format("another board came back: it has the address {}, the one before had {}",
                                             formatMac(*after), formatMac(*course.address));
    }
} catch (const std::exception &error) {
    if (attempt.result.failure.empty()) fail(attempt, error);
}

void runAttempt(Course &course, size_t index) {
    const Step &step = course.plan.steps[index];
    StepResult &result = course.run.steps[index];
    result.failure.clear();
    result.cause = Cause::kNone;
    result.reply.clear();
    result.cut = 0;
    result.measurements.clear();
    course.linked = Clock::now();
    Attempt attempt{course, step, index, result, Clock::now() + step.timeout};
    try {
        prepare(attempt);
    } catch (const std::exception &error) {
        return fail(attempt, error);
    }
    if (step.needsBoard()) attempt.session().setSendDeadline(attempt.deadline);
    exchange(attempt);
    if (step.reconnect && (result.failure.empty() || !course.connected)) reconnect(attempt);
}

// Returns why the step is not run; empty when it is.
std::string reasonAgainst(const Step &step, Course &course) {
    if (!course.over.empty() && !step.always) return course.over;
    if (!course.connected && step.needsBoard()) return "the session had ended";
    if (step.always || !course.context.stop.requested()) return {};
    course.run.interrupted = true;
    return "the station was stopped";
}

Milliseconds since(Clock::time_point start) { return std::chrono::duration_cast<Milliseconds>(Clock::now() - start); }

void runStep(Course &course, size_t index) {
    const Step &step = course.plan.steps[index];
    const Context &context = course.context;
    StepResult &result = course.run.steps[index];
    const bool connected = course.connected;
    const auto start = Clock::now();
    result.offset = since(course.start);
    result.title = step.title(course.run.variables);
    context.observers.tell(&Observer::stepStarts, course.run, index);
    do {
        if (result.attempts > 0) context.stop.wait(kRetryPause);
        ++result.attempts;
        runAttempt(course, index);
    } while (!result.failure.empty() && result.attempts <= step.retries &&
             (course.connected == connected || (step.reconnect && !step.needsBoard())) && !course.refused &&
             !context.stop.requested());
    result.verdict = result.failure.empty() ? Verdict::kPassed : Verdict::kFailed;
    if (!result.passed() && result.cause == Cause::kNone) result.cause = Cause::kUnit;
    result.duration = since(start);
    const Variables values = valuesOf(step, course.run);  // with what it has found
    result.title = step.title(values);
    result.hint = result.cause > Cause::kUnit ? todoAbout(result.cause) : fill(step.hint, values);
    context.observers.tell(&Observer::stepEnds, course.run, index);
    context.records.stepEnded(course.run, index);
}

// Returns true when the step can say which unit it is.
bool mayName(const Step &step) {
    return step.ask == kUnit || (step.expected.match && step.expected.match->groups().contains(kUnit));
}

// Notes why later steps are not run after this one.
void follow(Course &course, const Step &step, const StepResult &result) {
    if (!course.over.empty() || result.passed()) return;
    if (course.refused) course.over = "the unit was refused";
    if (step.required) course.over = "a required step had failed";
    if (!course.connected) course.over = "the session had ended";
}

}  // namespace

RunRecord newRun(const Plan &plan, const Place &place) {
    RunRecord run;
    run.start = WallClock::now();
    run.began = Clock::now();
    run.id = makeRunId(run.start);
    run.plan = plan.name;
    run.planDigest = plan.digest;
    run.files = plan.files;
    run.place = place;
    for (const Step &step : plan.steps) {
        StepResult &result = run.steps.emplace_back();
        result.title = result.planned = step.title();
        result.hint = step.hint;
        result.picture = step.picture;
        result.show = step.show;
    }
    return run;
}

RunRecord runPlan(Board &board, const Plan &plan, RunRecord run, const Context &context) {
    Course course{board, plan, run, context};
    for (size_t i = 0; i < plan.steps.size(); ++i) {
        StepResult &result = run.steps[i];
        const std::string reason = reasonAgainst(plan.steps[i], course);
        if (reason.empty()) {
            runStep(course, i);
        } else {
            result.failure = "not run: " + reason;
        }
        follow(course, plan.steps[i], result);
    }
    const StepResult *const failed = run.firstFailed();
    run.cause = run.interrupted ? Cause::kOperator : failed != nullptr ? failed->cause : Cause::kNone;
    if (run.passed() && run.unit.empty() && std::ranges::any_of(plan.steps, mayName)) {
        run.failure = "nobody said the unit's {serial}, and every step let it pass";
        run.cause = Cause::kStation;
    }
    run.stampEnd();
    return run;
}

}  // namespace station
