#pragma once
// Prints one line per event, for people.

#include <memory>

#include "station/run/observer.h"
#include "station/run/output.h"

namespace station {

// On a terminal it also shows the progress of a single board, and asks the operator, one question at a time. The
// terminal itself echoes and edits what is typed.
class Terminal : public Observer, public Operator {};

// `boards`: how many will be served, 0 for no end. `output` must outlive the terminal.
std::unique_ptr<Terminal> terminalOn(Output &output, int boards);

}  // namespace station
