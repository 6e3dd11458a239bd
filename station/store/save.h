#pragma once
// Writes records of runs to a store. Only this file turns a record into rows; load.h reads them back.

#include <string>
#include <vector>

#include "station/run/record.h"
#include "station/store/database.h"

namespace station {

// The parts of a run's record that are written. Rows that are there already are updated, so a record may be written any
// number of times and in any order: one without an end never replaces one with an end.
struct Saving {
    const RunRecord *row = nullptr;    // the record whose run and unit are written; null: the store knows both
    bool inWork = false;               // the row is of a run in work; without an end, any other one is interrupted
    const RunRecord *steps = nullptr;  // the record whose steps are written, as far as they have ended; may be null
    size_t first = 0;                  // the first of these steps, counted from 0
    bool isNew = true;                 // the store may not know the run's station and plan version yet
};

// Writes the records of different runs within the caller's transaction.
void save(Database &database, const std::vector<Saving> &all);
// Writes a whole record.
//
//     database.transact([&] { save(database, run); });
void save(Database &database, const RunRecord &run);

// Returns the verdict as the store spells it: running, passed, failed, interrupted.
std::string verdictIn(const RunRecord &run, bool inWork = false);

}  // namespace station
