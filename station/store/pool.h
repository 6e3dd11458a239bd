#pragma once
// Pools, from which each unit is given its own MAC addresses and other values for ever.
//
//     addRange(database, "mac", "02:00:00:00:00:00", "02:00:00:00:FF:FF", 500);
//     std::shared_ptr<Given> given;
//     database.transact([&] { given = take(database, "mac", serial, run, 4); });  // one round trip
//     const std::vector<std::string> addresses = valuesOf(*given);
//
// Each function either does everything that it says, or throws StoreError and changes nothing. The error is a Refusal
// when the request is wrong.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "station/base/mac.h"
#include "station/store/database.h"

namespace station {

constexpr int kLow = 100;  // the limit of a pool without its own: with enough for fewer units the pool is low

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

struct Given {
    std::string pool, serial;
    int count = 0;
    std::string kind = {};                 // of the pool; empty: there is no such pool
    std::vector<std::string> values = {};  // fewer than `count`: the pool is empty
    int64_t had = 0;                       // how many the unit had of the pool, when they were too few
    int64_t left = 0;                      // for how many more units the pool is enough; values count up to the limit
    bool low = false;                      // `left` is below the pool's limit
};

// Takes `count` values for the unit: those that it has already, otherwise the next ones of the pool. Addresses are
// consecutive and have the same first five bytes; a unit that has fewer than `count` gets new ones and keeps the old
// ones. Must be called inside transact(). The result is filled when the transaction has ended, or by the next ask() in
// it. If a transaction takes from several pools, take in the order of their names: otherwise two stations may wait for
// each other until the database ends one of them with StoreAway.
std::shared_ptr<Given> take(Database &database, const std::string &pool, const std::string &serial,
                            const std::string &run, int count);

// Returns the values. Throws Refusal when the pool did not have `count` of them.
const std::vector<std::string> &valuesOf(const Given &given);

}  // namespace station
