#pragma once
// Pools, from which each unit is given its own MAC addresses and other values for ever.
//
//     addRange(database, "mac", "02:00:00:00:00:00", "02:00:00:00:FF:FF", 500);
//     Given given{"mac", serial, run, 4};
//     database.transact([&] {
//         askWhatUnitsHave(database, {&given});
//         database.ask("SELECT 1");
//         give(database, {&given});
//     });
//     const std::vector<std::string> addresses = valuesOf(given);
//
// Each function either does everything that it says, or throws StoreError and changes nothing. The error is a Refusal
// when the request is wrong.

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "station/base/mac.h"
#include "station/store/database.h"

namespace station {

constexpr int kBlock = 256;  // addresses between two carries of the sixth byte; a unit takes at most so many
constexpr int kLow = 100;    // the limit of a pool without its own: with enough for fewer units the pool is low

// Returns an address, in any form, in the store's form; any other text unchanged.
std::string storeForm(const std::string &value);

// Adds a range from `first` to `last`, both included; makes the pool if it does not exist. `low` is the pool's limit in
// units; < 0 leaves it as it is. Refuses group addresses, the address of zeros, ranges whose first bytes differ, and
// whatever overlaps any pool. Returns a line for each thing that is unusual about the range.
std::vector<std::string> addRange(Database &database, const std::string &pool, const std::string &first,
                                  const std::string &last, int low);

struct Imported {
    int64_t added = 0;  // number of addresses or values
    std::string first;  // the first value of the file: shown, so that a person notices a heading
    std::vector<std::string> unusual;
};

// Adds a file of comma-separated values. Each line is a value; or an address, or FIRST,LAST. A value with a comma, a
// semicolon or a quote must be in quotes; any other may be. `kind` is "addresses" or "values", or empty to use that of
// an existing pool. Skips blanks and tabs around a value, empty lines, lines that begin with # and a byte order mark.
// Refuses the file, naming the lines, if some of it is not of the kind, is twice in it, or is in the store already, or
// if it has a heading.
Imported importFile(Database &database, const std::string &name, const std::filesystem::path &path,
                    const std::string &kind, int low);

// Retires addresses and values that no unit has, so that they are never given; `undo` reverts that. `first` and `last`
// select a range; without `last`, one address or value; without both, the whole pool. Returns how many were changed.
int64_t retire(Database &database, const std::string &name, const std::string &first, const std::string &last,
               bool undo);

// Returns the names of a store's pools; none if `store` is empty or its file does not exist yet.
std::set<std::string> poolNames(const std::string &store);

// Returns a row per pool. `units`: for how many more units the pool is enough, if each takes as much as the last one.
// `days`: how long that lasts at the pace of the last seven days. `warning`: "empty", "low" (fewer units than its
// limit), "10 % left", "7 days left".
Table listPools(Database &database);
// Returns a row per range of the pool.
Table listRanges(Database &database, const std::string &pool);

// Returns a line for the people on the line for each pool with a warning. Slow: counts the units of a week.
std::vector<std::string> poolWarnings(Database &database);

// Values that a run takes of a pool for its unit.
struct Given {
    std::string pool, unit, run;
    int count = 0;                         // 1 to kBlock
    std::string kind = {};                 // of the pool; empty: there is no such pool
    int64_t block = 0;                     // what the last unit took of it
    std::vector<std::string> values = {};  // empty: the pool does not have so many
    int64_t had = 0;                       // how many the unit had of the pool, when they were too few
    int64_t left = 0;  // after new ones were given: for how many more units the pool is enough, up to a pool's limit
    bool low = false;  // `left` is below that limit
};
using Givens = std::vector<Given *>;

// Queues the questions what the units have of the pools already: `kind`, `block`, `values` and `had` are there after
// the next ask(). Must be called inside transact().
void askWhatUnitsHave(Database &database, const Givens &all);
// Queues what gives `values` to those that have none. Addresses are consecutive and have the same first five bytes; a
// unit that has too few gets new ones and keeps the old ones. The results are there when the transaction has ended.
// Must be called after askWhatUnitsHave(), with locks on the units, and once in a transaction: two stations that lock
// pools one after the other may wait for each other until the database ends one of them with StoreAway.
void give(Database &database, const Givens &all);

// Returns the values. Throws Refusal when the pool did not have `count` of them.
const std::vector<std::string> &valuesOf(const Given &given);

}  // namespace station
