#pragma once
// What is asked of a store. docs/database.md explains each column, and has the same questions in SQL.

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

// As the store has it: "2026-11-21", a time of that day as 2026-11-21T17:30, each with or without a Z, or how long ago:
// 90m, 8h, 7d. Throws Refusal.
std::string parseTime(const std::string &text);

// All about a unit by its serial or by a value that it was given (an address in any form), or about a run by its
// name. Throws Refusal when there is neither.
std::vector<Section> show(Database &database, const std::string &what);

struct RunFilter {
    Period period;
    bool failed = false;
    int limit = 100;        // the newest ones; 0: all
    std::string step = {};  // only those that failed at it; empty: all
};
Table listRuns(Database &database, const RunFilter &filter);
// The same, a run at a time, however many there are.
Table eachRun(Database &database, const RunFilter &filter, const Database::EachRow &row);

// Yield and cycle time, in all or a row an hour or place; failures a step; measured values with their Cpk.
enum class By { kAll, kHour, kPlace };
Table yields(Database &database, const Period &period, By by);
Table failuresByStep(Database &database, const Period &period);
// Of one plan or of one name, unless these are empty. Includes runs that have not ended.
Table measuredValues(Database &database, const Period &period, const std::string &plan = "",
                     const std::string &name = "");

// Of a measured value of a plan (empty: of any): the oldest of the period, a row each; or all of them in so many groups
// of the same size, one behind the other in time, each with its lowest, mean and highest.
Table readings(Database &database, const Period &period, const std::string &plan, const std::string &name, int limit);
Table readingGroups(Database &database, const Period &period, const std::string &plan, const std::string &name,
                    int groups);

// Units whose serials begin so, the last seen first.
Table unitsLike(Database &database, const std::string &begin, int limit);

// All about a run by its name. Throws Refusal when there is none.
std::vector<Section> showRun(Database &database, const std::string &name);

}  // namespace station
