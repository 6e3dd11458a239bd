#pragma once
// Prints the line's events for programs, as lines of JSON. docs/event.schema.json describes them.

#include <memory>
#include <string>

#include "station/run/observer.h"
#include "station/run/output.h"

namespace station {

// Returns an observer that prints each event. `output` must outlive it.
std::unique_ptr<Observer> eventsTo(Output &output);

// Returns the line that reports how many lines were dropped because the reader was too slow.
std::string linesDropped(size_t count);

}  // namespace station
