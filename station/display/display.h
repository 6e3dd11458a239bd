#pragma once
// What the line engineer sees of a run: on a terminal a live line for each board, with step and progress, green or red
// at the end; elsewhere a plain line for each step.

#include <memory>

#include "station/line/observer.h"

namespace station {

// Writes to standard output. NO_COLOR, unless empty, takes the colours.
std::unique_ptr<Observer> makeDisplay(int boards);

}  // namespace station
