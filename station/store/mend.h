#pragma once
// Makes store, spool and result files agree about runs that were in work when their process died.

#include "station/run/results.h"
#include "station/store/database.h"
#include "station/store/spool.h"

namespace station {

// Settles every run of the spool's keys that is running in the store, has no .log among the result files, or waits in
// the spool. Of the three records, the one with an end wins; without any, the one with the most steps, and the run is
// interrupted. Writes that record to store and files, and reports what it did. `files` may be null. Throws StoreAway,
// or RecordsError when a file cannot be read at present; call it again then.
void mend(Database &database, Spool &spool, FileRecords *files, const Spool::Say &say);

// Writes a record to the store, in a transaction of its own, and drops it from the spool. The run has ended, or its
// process died. Sets a record aside that the store refuses. Throws StoreAway.
void writeLate(Database &database, Spool &spool, const RunRecord &run);

}  // namespace station
