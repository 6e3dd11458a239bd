#pragma once
// Pools of what is given once and for ever: ranges of MAC addresses, and rows of anything else.

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "station/store/database.h"

namespace station {

constexpr int kLow = 100;  // fewer left in a pool than this is worth a warning, unless the pool says otherwise

// Each does all of it or, throwing StoreError (a Refusal where the request is at fault), nothing. A pool is made when
// it is first filled; `low` < 0 leaves the limit as it is.

// Refused: a range that is not of individual addresses, all of one first byte, or that overlaps one of any pool.
void addRange(Database &database, const std::string &pool, const std::string &first, const std::string &last, int low);

// A file of comma-separated values: a row a line, or FIRST,LAST for a range of addresses. A new pool is one of
// addresses when every row is. Returns how many values were added.
int64_t importRows(Database &database, const std::string &name, const std::filesystem::path &file, int low);

// What is left of the pool, of its range with this address, or the row of this value is never given. Returns how many.
int64_t retire(Database &database, const std::string &name, const std::string &value);

// None when there is no store, or no such file yet. Throws StoreError.
std::set<std::string> poolNames(const std::string &store);

Table listPools(Database &database);

struct Given {
    std::vector<std::string> values;
    int64_t left = 0;  // in the pool, counted up to its limit
    bool low = false;  // fewer than that
};

// Inside a transaction: the next `count` values for the unit's run, or those that the unit has from before. Addresses
// are consecutive, and their sixth byte has no carry.
Given take(Database &database, const std::string &name, const std::string &serial, const std::string &run, int count);

}  // namespace station
