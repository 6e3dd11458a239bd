#pragma once
// The queries of a store. docs/database.md explains each column, and has the same queries in SQL. Each throws
// StoreError or a type derived from it (database.h).

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "station/store/database.h"

namespace station {

struct Section {
    std::string name;
    Table table;
};

// Adds the rows of the other table, which has the same columns. A table without columns becomes the other one.
void append(Table &all, Table more);

// Times in the store's form (UTC), or the beginning of one. Empty: no bound. `until` itself is not in the period.
struct Period {
    std::string since, until;
};

// Returns the two times as values for SQL. An empty bound becomes a time before or after all others.
std::vector<Value> bounds(const Period &period);

// Selects runs. An empty text selects all.
struct Filter {
    Period period = {};
    std::string plan = {}, product = {};
    std::string station = {}, place = {};  // their names
    std::string cause = {};                // of a failure: unit, connection, station, operator
};

// Returns all about a unit, by its serial or by a value that it was given (an address in any form); or all about a run,
// by its name. The name of the first section is "unit" or "run". Throws Refusal when there is neither.
std::vector<Section> show(Database &database, const std::string &what);

struct RunFilter {
    Filter filter = {};
    bool failed = false;
    int limit = 100;        // the newest ones; 0: all
    std::string step = {};  // only runs that failed at this step; empty: all
    std::string file = {};  // only runs that used the file of this name or SHA-256; empty: all
};
// Returns the runs, the oldest first.
Table listRuns(Database &database, const RunFilter &filter);
// The same in bounded memory: calls `row` for each run, and returns the table's head without rows.
Table eachRun(Database &database, const RunFilter &wanted, const Database::EachRow &row);

enum class By { kAll, kHour, kDay, kPlace, kPlan };
// Returns yield and cycle time: one row in all, or one per hour, day, place or plan. A unit counts once per plan, where
// its last run is. Only runs that say something about units count (RunRecord::counts). Hours and days are UTC. Median
// and 90th percentile are rounded to a tenth of a second, from 100 seconds on to a second.
Table yields(Database &database, const Filter &filter, By by);
// Returns failures by step, the most frequent first: the unit's, unless the filter names another cause.
Table failuresByStep(Database &database, const Filter &filter);
// Returns the failures that were not the unit's, by cause, place and step.
Table failuresByCause(Database &database, const Filter &filter);
// Number, mean, spread and limits of some readings; += adds other readings. A figure that does not exist is NAN.
struct Spread {
    Value started = {}, until = {};  // of the first reading and the last one
    double measured = 0, failed = 0;
    double numbers = 0, mean = 0, squares = 0;  // readings that are numbers, their mean, the sum of squares about it
    double lowest = NAN, highest = NAN;
    double minimum = NAN, maximum = NAN;  // the tightest limits

    void operator+=(const Spread &other);
};
using Spreads = std::map<std::vector<Value>, Spread>;  // by station, place, plan, name and unit of measure

// Returns the figures of a measured value (empty name: of all) by place. Includes runs that have not ended, but no
// reference units.
Spreads spreadsByPlace(Database &database, const Filter &filter, const std::string &name);
// Returns figures with their Cpk, the lowest first; without station and place unless by place.
Table valuesTable(const Spreads &spreads, bool byPlace);
// Returns such a table of all measured values: one row per plan, name and unit of measure.
Table measuredValues(Database &database, const Filter &filter);

// Returns the oldest `limit` readings of a measured value in the order of time, one per row.
Table readings(Database &database, const Filter &filter, const std::string &name, size_t limit);
// Returns how many readings lie in each of `ranges` ranges of the same width, one row per range and place. A range
// without any has no row.
Table histogram(Database &database, const Filter &filter, const std::string &name, int ranges);

// Returns what a filter can select: one row per combination of plan, product, station and place in the last 5000 runs.
Table choices(Database &database);

// Returns at most `limit` units whose serials begin with `begin`, the last seen first, with the verdict of the last
// run.
Table unitsLike(Database &database, const std::string &begin, int limit);

// Returns all about the run of this name. Throws Refusal when the store does not know it.
std::vector<Section> showRun(Database &database, const std::string &name);

}  // namespace station
