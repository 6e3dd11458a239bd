#pragma once
// The line: which board is at which place, and what is run there.

#include <vector>

#include "station/line/run.h"
#include "station/wire/listener.h"

namespace station {

// Runs the plan on the next `boards` boards that connect within `wait`, each in a thread of its own. The result has one
// entry a board, those that never connected included: what one board does spoils no other's.
std::vector<RunRecord> runBoards(Listener &listener, const Plan &plan, int boards, Milliseconds wait,
                                 const Context &context);

}  // namespace station
