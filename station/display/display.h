#pragma once
// What people at the station see of its boards: on a terminal a live row a place, or a summary when these are more than
// its rows; elsewhere a plain line for each thing that happens. On a terminal the operator is also asked.

#include <memory>
#include <string>

#include "station/run/observer.h"
#include "station/run/operator.h"

namespace station {

struct Display : Observer, Operator {};

// Writes to standard output until it is destroyed. `boards` is how many will be served, 0 for no end. NO_COLOR, unless
// empty, takes the colours.
std::unique_ptr<Display> makeDisplay(int boards);
std::unique_ptr<Display> makeTerminal(int boards, bool coloured);
// Before the program ends at once: lets the terminal echo again. May be called by a signal's handler.
void restoreTerminal();

// The place for people; one that has no name but its number is the board's.
std::string nameOf(const Place &place);
// What stands behind a verdict: the first step that failed and why, or what failed besides; else the number of steps.
std::string summaryOf(const RunRecord &run);
// What to do about it, from the plan; empty: nothing is said.
std::string hintOf(const RunRecord &run);
// A board's end in one line: verdict, unit, seconds, summary and hint.
std::string endLine(const RunRecord &run);
// The replies that the plan wants to be seen, as the board sent them, colours and all; `named` says whose each one is.
std::string shownReplies(const RunRecord &run, bool named);

}  // namespace station
