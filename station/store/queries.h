#pragma once
// What is asked of a store. docs/database.md explains each column, and has the same questions in SQL.

#include <chrono>
#include <string>
#include <vector>

#include "station/store/database.h"

namespace station {

struct Section {
    std::string name;
    Table table;
};

// Times in UTC, as the store has them or the start of one; empty: no bound. `until` itself is left out.
struct Period {
    std::string since, until;
};

// Returns the two times, that of a bound that is empty being before or after all others.
std::vector<Value> bounds(const Period &period);

// Which runs are meant. An empty text: any.
struct Filter {
    Period period = {};
    std::string plan = {}, product = {};
    std::string station = {}, place = {};  // their names
    std::string cause = {};                // of a failure: unit, connection, station, operator
};

// All about a unit by its serial or by a value that it was given (an address in any form), or about a run by its
// name. Throws Refusal when there is neither.
std::vector<Section> show(Database &database, const std::string &what);

struct RunFilter {
    Filter filter = {};
    bool failed = false;
    int limit = 100;        // the newest ones; 0: all
    std::string step = {};  // only those that failed at it; empty: all
    std::string file = {};  // only those with a step that used the file of this name or SHA-256; empty: all
};
Table listRuns(Database &database, const RunFilter &filter);
// The same, a run at a time, however many there are.
Table eachRun(Database &database, const RunFilter &wanted, const Database::EachRow &row);

// Yield and cycle time, in all or a row for each part. A unit is counted once for each plan, where its last run is.
// Only runs that say something about units count (RunRecord::counts). `zone`: hours and days are those of a clock that
// is so far ahead of UTC.
enum class By { kAll, kHour, kDay, kPlace, kPlan };
Table yields(Database &database, const Filter &filter, By by, std::chrono::minutes zone = {});
// The unit's failures by step, unless the filter names another cause.
Table failuresByStep(Database &database, const Filter &filter);
// The failures that were not the unit's, by cause, place and step.
Table failuresByCause(Database &database, const Filter &filter);
// Measured values with their Cpk, of one name unless it is empty, in all or by place. Includes runs that have not
// ended.
Table measuredValues(Database &database, const Filter &filter, const std::string &name = "", By by = By::kAll);

// Of a measured value: the oldest of the filter, a row each; or all of them in so many groups of the same size, in the
// order of time, each with its lowest, mean and highest.
Table readings(Database &database, const Filter &filter, const std::string &name, int limit);
Table readingGroups(Database &database, const Filter &filter, const std::string &name, int groups);
// How many of them lie in each of so many ranges of the same width; a range without any has no row.
Table histogram(Database &database, const Filter &filter, const std::string &name, int ranges);

// What a filter can choose: the plans, products, stations and places of the last runs, a row for each combination.
Table choices(Database &database);

// Units whose serials begin so, the last seen first, with the verdict of the last run.
Table unitsLike(Database &database, const std::string &begin, int limit);

// All about a run by its name. Throws Refusal when there is none.
std::vector<Section> showRun(Database &database, const std::string &name);

}  // namespace station
