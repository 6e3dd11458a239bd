#pragma once
// Makes store, spool and result files agree about the runs that dead processes have left.

#include "station/run/results.h"
#include "station/store/database.h"
#include "station/store/spool.h"

namespace station {

// Settles every run of the spool's keys that is running in the store, has no .log among the result files, or waits in
// the spool. Of what the three know of it, the record that has an end holds, else the one with the most steps; without
// an end the run is interrupted. The record is then written to both. Says what it mended. `files` may be null. Throws
// StoreAway, after which it is to be called again.
void mend(Database &database, Spool &spool, FileRecords *files, const Spool::Say &say);

// Writes the record of a run that has ended or was left to the store, in a transaction of its own, and has the spool
// forget it. A record that the store refuses is set aside. Throws StoreAway.
void writeLate(Database &database, Spool &spool, const RunRecord &run, const Spool::Say &say);

// Sets a record aside that the store refuses, for `qcstation store replay`, and says so.
void setAside(Spool &spool, const RunRecord &run, const std::string &why, const Spool::Say &say);

}  // namespace station
