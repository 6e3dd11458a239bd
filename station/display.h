#pragma once
// What the line engineer sees of a run: on a terminal with colours and the progress of an upload, else plain lines.

#include <memory>

#include "station/run.h"

namespace station {

// Writes to standard output. Colours and progress need a terminal; NO_COLOR (https://no-color.org) takes the colours.
std::unique_ptr<Observer> makeDisplay();

// A text in one line: line ends and control characters become visible.
std::string oneLine(const std::string &text);

}  // namespace station
