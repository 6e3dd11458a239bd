#pragma once
// Writes records of runs to a store. Only this file turns a record into rows; load.h reads them back.

#include <string>
#include <vector>

#include "station/run/record.h"
#include "station/store/database.h"

namespace station {

// Writes a record within the caller's transaction: the run, its unit, and the steps that have ended, from `first`
// (counted from 0) on. Updates what is there already, so a record may be written any number of times and in any order:
// a record without an end never replaces one with an end. `inWork`: a run without an end is still running;
// otherwise it counts as interrupted.
//
//     database.transact([&] { save(database, run); });
void save(Database &database, const RunRecord &run, bool inWork = false, size_t first = 0);

// The steps of a run from `first` on.
struct StepsOf {
    const RunRecord &run;
    size_t first;
};

// Writes only those steps that have ended, of runs that the store knows.
void saveSteps(Database &database, const std::vector<StepsOf> &all);

// Returns the verdict as the store spells it: running, passed, failed, interrupted.
std::string verdictIn(const RunRecord &run, bool inWork = false);

}  // namespace station
