#pragma once
// Records of runs, written to a store: the one place that turns a record into rows. load.h reads them back.

#include <string>

#include "station/run/record.h"
#include "station/store/database.h"

namespace station {

// Writes the record within the caller's transaction: run, unit, and the steps from `first` (counted from 0) on that
// have ended. What is there already is brought up to date, so that a record may be written any number of times, in any
// order: one that has ended is never undone by one that has not. `inWork`: a record without an end is of a run that
// goes on; else it is interrupted.
//
//     database.transact([&] { save(database, run); });
void save(Database &database, const RunRecord &run, bool inWork = false, size_t first = 0);

// Writes those steps from `first` on alone, of a run in work that the store knows.
void saveSteps(Database &database, const RunRecord &run, size_t first);

// Returns the verdict as the store has it: running, passed, failed, interrupted.
std::string verdictIn(const RunRecord &run, bool inWork = false);

}  // namespace station
