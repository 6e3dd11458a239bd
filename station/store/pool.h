#pragma once
// Pools of what is given once and for ever: ranges of MAC addresses, and values of any kind, a row each.
//
//     addRange(database, "mac", "02:00:00:00:00:00", "02:00:00:00:FF:FF", 500);
//     std::shared_ptr<Given> given;
//     database.transact([&] { given = take(database, "mac", serial, run, 4); });  // one round trip
//     const std::vector<std::string> addresses = valuesOf(*given);
//
// Each function does all that it says or, throwing StoreError (a Refusal where the request is at fault), nothing.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "station/base/mac.h"
#include "station/store/database.h"

namespace station {

constexpr int kLow = 100;  // a pool that has enough for fewer units than this is low, unless it was given a limit

// Adds a range, and makes the pool when it is new. `low` < 0 leaves the limit as it is. Refuses addresses that are not
// of one board, or whose first bytes differ, and what overlaps anything of any pool. Returns what is unusual about the
// range, a line each.
std::vector<std::string> addRange(Database &database, const std::string &pool, const std::string &first,
                                  const std::string &last, int low);

struct Imported {
    int64_t added = 0;  // addresses or values
    std::string first;  // of the file, as a person may see that it is a heading
    std::vector<std::string> unusual;
};

// Adds a file of comma-separated values: a value a line, or an address or FIRST,LAST. `kind` is "addresses" or
// "values"; empty for that of a pool that is there. Blanks and tabs around a value, empty lines, lines that begin with
// # and a byte order mark are skipped. Refuses, with the lines, what is not of the kind.
Imported importFile(Database &database, const std::string &name, const std::filesystem::path &path,
                    const std::string &kind, int low);

// What is left of the addresses from `first` to `last`, of one address or value (`last` is empty) or of the whole pool
// (both are empty) is never given; `undo`: can be given again. Returns how many.
int64_t retire(Database &database, const std::string &name, const std::string &first, const std::string &last,
               bool undo);

// Returns none when there is no store, or no such file yet.
std::set<std::string> poolNames(const std::string &store);

// A row a pool. `units`: for how many more units it has enough, of what the last one took; `days`: how long that is at
// the pace of the last seven days; `warning`: "empty", "low" (fewer units than its limit), "10 % left", "7 days left".
Table listPools(Database &database);
Table listRanges(Database &database, const std::string &pool);

// Returns a line for each pool with a warning, for the people on the line. Counts a week of units.
std::vector<std::string> poolWarnings(Database &database);

struct Given {
    std::string pool, serial;
    int count = 0;
    std::string kind = {};                 // of the pool; empty: there is no such pool
    std::vector<std::string> values = {};  // fewer than `count`: the pool is empty
    int64_t had = 0;                       // of the pool by the unit before, which did not fit
    int64_t left = 0;                      // for so many more units is there enough, counted up to the limit of values
    bool low = false;
};

// Inside transact(): takes the next `count` values for the unit that the run has, or those that it has from before.
// Addresses are consecutive, and their sixth byte has no carry; a unit that has fewer is given new ones, and keeps
// those. The result is there when the transaction has ended, or after the next ask() in it. Other pools of the
// transaction come in the order of their names: else two stations may wait for each other until the database ends one
// with StoreAway.
std::shared_ptr<Given> take(Database &database, const std::string &pool, const std::string &serial,
                            const std::string &run, int count);

// Returns the values. Throws Refusal when there are not so many.
const std::vector<std::string> &valuesOf(const Given &given);

}  // namespace station
