#pragma once
// The record of one run of a plan on one board, which results, store, page and hooks are made from.

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "station/base/time.h"
#include "station/plan/payload.h"

namespace station {

// Where a board is cabled to the station.
struct Place {
    int number = 1;    // from 1, in the order of the line's file or of the interfaces
    std::string name;  // from the line's file, or the interface's, or the number; fit for a file's name
    bool operator==(const Place &) const = default;
};

// The process that made a record.
struct Recorder {
    std::string name;  // of its machine
    std::string key;   // unique: the name of its spool; empty: it uses no store
};

// A number that a step found, and its limits.
struct Measurement {
    std::string name;
    double value = 0;
    std::optional<double> min, max;
    std::string unit;
    bool passed = true;
};

enum class Verdict { kNotRun, kPassed, kFailed };

// Whose fault a failure is. Only the unit's counts in yields.
enum class Cause { kNone, kUnit, kConnection, kStation, kOperator };

// Returns "not run", "passed" or "failed".
std::string_view textOf(Verdict verdict);
// Returns "", "unit", "connection", "station" or "operator".
std::string_view textOf(Cause cause);

struct StepResult {
    std::string title;    // the step's, for people; its variables are filled in when it starts
    std::string planned;  // the title as the plan has it, the same for every unit
    Verdict verdict = Verdict::kNotRun;
    std::string reply;                    // its text, or what the script printed, up to a limit
    uint64_t cut = 0;                     // bytes of the reply beyond that limit, which are lost
    std::string failure;                  // why the step did not pass; empty when it passed
    Cause cause = Cause::kNone;           // of a failure
    std::string hint;                     // what to do when it fails: the plan's, or the one for its cause
    std::optional<Payload> picture;       // the plan's, beside the prompt or the hint; no record keeps it
    bool show = false;                    // the plan's `show`: print the reply as it is
    std::chrono::milliseconds offset{0};  // of its start from the run's
    std::chrono::milliseconds duration{0};
    int attempts = 0;
    std::vector<Measurement> measurements;

    bool passed() const { return verdict == Verdict::kPassed; }
};

struct RunRecord {
    std::string id;  // unique across all stations; fit for a file's name
    std::string plan;
    std::string planDigest;       // SHA-256, in hexadecimal digits, of the plan and its files; empty: unknown
    std::vector<PlanFile> files;  // that the plan's steps use
    Place place;
    Recorder station;
    std::string peer;  // ADDRESS:PORT of the board, and %INTERFACE when it is bound to one; empty: it never connected
    std::string unit;  // the variable "serial"; empty: not known
    WallClock::time_point start, end;  // `end`: 0 until the run has ended
    Clock::time_point began;           // the start by the monotonic clock
    std::map<std::string, std::string> variables;
    std::vector<StepResult> steps;  // one for each step of the plan, from the run's start on
    std::string failure;            // what failed besides the steps; empty: nothing
    Cause cause = Cause::kNone;     // of a run that failed
    std::string operatorName;       // who works at the place; empty: the line does not ask
    bool reference = false;         // a run of the reference unit, which counts in no yield
    bool interrupted = false;       // the station was stopped, or died, before the plan's end

    void stampEnd();  // sets the end: the start and the time since, by the monotonic clock
    bool ended() const { return end != WallClock::time_point(); }
    size_t failures() const;  // steps that failed
    size_t notRun() const;    // steps that were not run
    bool passed() const { return failures() + notRun() == 0 && failure.empty() && !interrupted; }
    // Returns true when the unit must be tested again: the failure was not its own.
    bool again() const { return !passed() && cause > Cause::kUnit; }
    const StepResult *firstFailed() const;  // null: none
    // Returns true when the run says something about the quality of units: it was judged, and a failure was the unit's.
    // A failure without a cause, as older versions recorded it, counts as the unit's.
    bool counts() const;
};

// Returns the place's name for people: its name, or "board 3" when it has none but its number.
std::string nameOf(const Place &place);

// Returns the reason for a verdict: the first failed step and why it failed, or what else failed; for a run that
// passed, the number of its steps.
std::string summaryOf(const RunRecord &run);

// Returns what to do about a failure with this cause; empty for the unit's, for which the plan has hints.
std::string todoAbout(Cause cause);
// Returns what to do about the run's failure: the failed step's hint, or what its cause asks for. May be empty.
std::string todoAbout(const RunRecord &run);

// Returns a run's end in one line: verdict (PASS, FAIL, or AGAIN when the failure is not the unit's), unit, seconds,
// reason, and what to do.
std::string endLine(const RunRecord &run);

// Returns "20261121T173000.123Z-" and eight random hexadecimal digits.
std::string makeRunId(WallClock::time_point start);

// Returns the record as it is kept until the run ends: without an end, and marked as interrupted.
RunRecord unfinished(RunRecord run);

// Returns "4 steps, 1 failed, 2 not run (cause: station)". Leaves out a count of 0 that were not run, and the unit as a
// cause.
std::string countsOf(const RunRecord &run);

// Returns a line about a step: verdict, seconds, title, and the reply or why it failed.
std::string describeStep(const StepResult &result);

}  // namespace station
