#include "station/store/pool.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <re2/re2.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <unordered_map>

#include "station/base/text.h"
#include "station/base/time.h"
#include "station/plan/variables.h"
#include "station/run/record_json.h"
#include "station/store/sql.h"

namespace station {
namespace {

using Strings = std::vector<std::string>;
using Rows = std::vector<std::vector<Value>>;

constexpr size_t kShownLines = 10;             // of a file, when it is refused
constexpr std::chrono::seconds kForNames{10};  // to answer, before a line starts or is read again

struct Range {
    Mac first, last;
};

constexpr Range kAll = {0, int64_t{1} << 48};

struct Pool {
    int64_t id = 0;
    std::string name, kind;
};

// A line of a file.
struct Entry {
    int line = 0;
    std::string value;           // the first column
    std::optional<Range> range;  // addresses
    bool quoted = false;
};

// The entries that a pool gets: those of a file, or one range without a file.
struct Addition {
    std::filesystem::path file;
    std::vector<Entry> entries;

    std::string at(int line) const { return line == 0 ? "" : fmt::format("{}:{}: ", file.string(), line); }
};

std::optional<Pool> findPool(Database &database, const std::string &name) {
    const Table found = database.ask("SELECT id, kind FROM pools WHERE name = $1", {name});
    if (found.empty()) return std::nullopt;
    return Pool{integer(found.rows[0][0]), name, *found.rows[0][1]};
}

std::string unknown(const std::string &name) {
    return fmt::format("there is no pool \"{}\": make it with \"qcstation pool add\" or \"qcstation pool import\"",
                       name);
}

// Returns the pool of this name, and makes it if it is new. Throws Refusal when it exists with another kind.
Pool openPool(Database &database, const std::string &name, const std::string &kind, int low) {
    const std::string fault = faultOfName(name);
    if (!fault.empty() && !findPool(database, name)) throw Refusal("a plan cannot ask for this pool: " + fault);
    database.queue("INSERT INTO pools (name, kind, low) VALUES ($1, $2, $3) ON CONFLICT (name) DO NOTHING",
                   {name, kind, number(kLow)});
    Pool pool = *findPool(database, name);
    if (pool.kind != kind) {
        throw Refusal(fmt::format("the pool \"{}\" has {}: add {} to another pool", name, pool.kind, kind));
    }
    if (low >= 0) database.queue("UPDATE pools SET low = $1 WHERE id = $2", {number(low), number(pool.id)});
    return pool;
}

Mac addressOf(const std::string &text) {
    if (const auto mac = parseMac(text)) return *mac;
    throw Refusal(fmt::format("\"{}\" is not a MAC address: write it as 02:00:00:00:00:FE", text));
}

Range rangeOf(const std::string &first, const std::string &last) {
    const Range range{addressOf(first), addressOf(last)};
    if (range.first > range.last) throw Refusal("the first address is above the last: swap them");
    if (range.first == 0) throw Refusal("a board cannot have the address 00:00:00:00:00:00: begin with a higher one");
    if (range.first >> 40 != range.last >> 40)
        throw Refusal("the two addresses differ in their first byte: check both");
    if (isIndividual(range.first)) return range;
    throw Refusal(fmt::format("{} is a multicast address, which no board can have: check its first byte", first));
}

void addUnusual(Strings &unusual, Range range) {
    const std::string both = fmt::format("{} to {}", formatMac(range.first), formatMac(range.last));
    if (range.first >> 24 != range.last >> 24) {
        unusual.push_back(both + " has addresses of more than one maker: the first three bytes change");
    }
    if (range.first >> 40 & 2) {
        unusual.push_back(both + " is locally administered: no registry keeps others from using it");
    }
}

// Throws Refusal when an address of the entries, which the store has now, is there twice.
void refuseOverlaps(Database &database, const Pool &pool, const Addition &added) {
    Range all{INT64_MAX, 0};
    for (const Entry &entry : added.entries) {
        if (entry.range) all = {std::min(all.first, entry.range->first), std::max(all.last, entry.range->last)};
    }
    const Table found = database.ask(sqlOf(database.shared(), "pool_overlap"), {number(all.first), number(all.last)});
    if (found.empty()) return;
    const auto &row = found.rows[0];
    const Mac both = integer(row[0]);
    std::vector<int> lines;
    for (const Entry &entry : added.entries) {
        if (entry.range && entry.range->first <= both && both <= entry.range->last) lines.push_back(entry.line);
    }
    if (lines.size() > 1) {
        throw Refusal(fmt::format("{}{} is in line {} already: remove one of the two", added.at(lines[1]),
                                  formatMac(both), lines[0]));
    }
    throw Refusal(fmt::format("{}{} is in the pool \"{}\" already: leave it out",
                              added.at(lines.empty() ? 0 : lines[0]), formatMac(both),
                              *row[row[1] == pool.name ? 2 : 1]));
}

// Returns the ranges in order. Joins consecutive ones, so that blocks can be taken across their borders.
std::vector<Range> joined(const std::vector<Entry> &entries) {
    std::vector<Range> ranges, all;
    ranges.reserve(entries.size());
    for (const Entry &entry : entries) ranges.push_back(*entry.range);
    std::sort(ranges.begin(), ranges.end(), [](Range a, Range b) { return a.first < b.first; });
    for (const Range range : ranges) {
        if (!all.empty() && all.back().last + 1 == range.first && all.back().first >> 40 == range.first >> 40) {
            all.back().last = range.last;
        } else {
            all.push_back(range);
        }
    }
    return all;
}

Imported addRanges(Database &database, const Pool &pool, const Addition &added) {
    Imported result;
    Json rows = Json::array();
    for (const Range range : joined(added.entries)) {
        result.added += range.last - range.first + 1;
        rows.push_back(Json::array({range.first, range.last}));
        if (result.unusual.size() < kShownLines) addUnusual(result.unusual, range);
    }
    database.run(sqlOf(database.shared(), "pool_add_ranges"), {number(pool.id), rows.dump()});
    refuseOverlaps(database, pool, added);
    return result;
}

Imported addValues(Database &database, const Pool &pool, const Addition &added) {
    std::unordered_map<std::string, int> left;  // lines of those that the database has not taken, by their keys
    Json rows = Json::array();
    for (const Entry &entry : added.entries) {
        const auto [first, isNew] = left.try_emplace(storeForm(entry.value), entry.line);
        if (!isNew) {
            throw Refusal(fmt::format("{}\"{}\" is in line {} already: remove one of the two", added.at(entry.line),
                                      entry.value, first->second));
        }
        rows.push_back(Json::array({entry.value, entry.range ? Json(entry.range->first) : Json()}));
    }
    const Table taken = database.ask(sqlOf(database.shared(), "pool_add_values"), {number(pool.id), rows.dump()});
    for (const auto &row : taken.rows) left.erase(storeForm(*row[0]));
    refuseOverlaps(database, pool, added);
    for (const Entry &entry : added.entries) {
        if (!left.contains(storeForm(entry.value))) continue;
        throw Refusal(fmt::format("{}\"{}\" is in this pool already, or in another one as an address: leave it out",
                                  added.at(entry.line), entry.value));
    }
    return {int64_t(rows.size()), {}, {}};
}

Imported add(Database &database, const std::string &name, const std::string &kind, int low, const Addition &added) {
    Imported result;
    database.transact([&] {
        database.lock({"pools"});
        const Pool pool = openPool(database, name, kind, low);
        result = (kind == "addresses" ? addRanges : addValues)(database, pool, added);
    });
    result.first = added.entries.front().value;
    return result;
}

// ---- files

// Returns the columns of a line of CSV. Throws Refusal for a line that another program may read otherwise.
Strings columnsOf(re2::StringPiece line) {
    static const re2::RE2 kColumn(R"re([ \t]*(?:"((?:[^"]|"")*)"|([^",;]*))[ \t]*(,|$))re"), kQuotes("\"\"");
    Strings columns;
    std::string quoted, plain, comma = ",";
    while (comma == ",") {
        if (!re2::RE2::Consume(&line, kColumn, &quoted, &plain, &comma)) {
            throw Refusal(line.find(';') != std::string::npos
                              ? "columns are separated with commas, not with semicolons; write a value that has one as"
                                " \"a;b\""
                              : "a quote is out of place: write a value that has one as \"a\"\"b\"");
        }
        re2::RE2::GlobalReplace(&quoted, kQuotes, "\"");
        columns.push_back(trim(quoted + plain));
    }
    return columns;
}

Entry entryOf(int line, const std::string &text, bool addresses) {
    const Strings columns = columnsOf(text);
    const std::string &first = columns.front();
    const auto isControl = [](char byte) { return uint8_t(byte) < ' ' || byte == 0x7F; };
    if (std::find(columns.begin(), columns.end(), "") != columns.end()) {
        throw Refusal("a column is empty: remove the comma before or after it");
    }
    if (columns.size() > (addresses ? 2 : 1)) {
        throw Refusal(fmt::format(
            "the line has {} columns: write {}", columns.size(),
            addresses ? "one address, or FIRST,LAST" : "one value per line, and a value with a comma as \"a,b\""));
    }
    if (addresses) return {line, first, rangeOf(first, columns.back())};
    if (std::any_of(first.begin(), first.end(), isControl)) {
        throw Refusal("a tab or another control character is in the value: remove it");
    }
    const auto mac = parseMac(first);
    return {line, first, mac ? std::optional(Range{*mac, *mac}) : std::nullopt, text.starts_with('"')};
}

// Returns a fault for each address among the entries, or for each other entry, whichever are fewer: a file with both is
// probably a file of addresses with a mistake.
Strings mixtureIn(const Addition &values) {
    const auto isWritten = [](const Entry &entry) { return entry.range && entry.value.size() == 17; };
    const auto &all = values.entries;
    const auto addresses = size_t(std::count_if(all.begin(), all.end(), isWritten));
    const bool few = 2 * addresses < all.size();
    Strings faults;
    for (const Entry &entry : all) {
        if (addresses == 0 || addresses == all.size() || isWritten(entry) != few) continue;
        faults.push_back(fmt::format("{}\"{}\" is {} MAC address, unlike most other lines: correct it, or use another"
                                     " pool for it",
                                     values.at(entry.line), entry.value, few ? "a" : "not a"));
    }
    return faults;
}

// Returns true when the first value is probably a heading: it has no digit, each other one has, and either another
// length or the first is a usual word. Keys of one length are not taken for one.
bool hasHeading(const std::vector<Entry> &all) {
    static const re2::RE2 kWords("(?i)keys?|serials?|values?|passwords?|psk|pins?|codes?|tokens?|names?|numbers?|id");
    const Entry &first = all.front();
    const auto hasDigit = [](const Entry &entry) {
        return entry.value.find_first_of("0123456789") != std::string::npos;
    };
    const bool isWord = re2::RE2::FullMatch(first.value, kWords);
    const auto isOther = [&](const Entry &entry) {
        return hasDigit(entry) && (isWord || entry.value.size() != first.value.size());
    };
    return all.size() > 1 && !first.quoted && !hasDigit(first) && std::all_of(all.begin() + 1, all.end(), isOther);
}

// Reads a file. Throws one Refusal with its faults.
Addition read(const std::filesystem::path &path, bool addresses) {
    std::ifstream file(path);
    Addition all{path, {}};
    Strings faults;
    std::string line;
    for (int at = 1; std::getline(file, line); ++at) try {
            if (at == 1 && line.starts_with("\uFEFF")) line.erase(0, 3);
            line = trim(line);
            if (line.empty() || line[0] == '#') continue;
            if (text(line) == line) {
                all.entries.push_back(entryOf(at, line, addresses));
            } else if (faults.empty()) {
                throw Refusal("this is not text in UTF-8: save the file as \"CSV UTF-8\"");
            }
        } catch (const Refusal &error) {
            faults.push_back(all.at(at) + error.what());
        }
    if (all.entries.empty() && faults.empty()) {
        throw Refusal(fmt::format("{} has no lines to import, or cannot be read", path.string()));
    }
    if (faults.empty() && !addresses) faults = mixtureIn(all);
    if (faults.empty() && !addresses && hasHeading(all.entries)) {
        const Entry &first = all.entries.front();
        faults = {fmt::format("{}\"{}\" looks like a heading, because all other values have digits: remove the line, or"
                              " write it in quotes if it is a value",
                              all.at(first.line), first.value)};
    }
    if (faults.empty()) return all;
    const size_t shown = std::min(faults.size(), kShownLines);
    std::string why = fmt::format("{}", fmt::join(faults.begin(), faults.begin() + ptrdiff_t(shown), "\n"));
    if (shown < faults.size()) why += fmt::format("\nand {} more lines", faults.size() - shown);
    throw Refusal(why);
}

// ---- retiring

int64_t retireRange(Database &database, const Pool &pool, Range range, const Words &retired) {
    for (const Mac at : {range.first, range.last + 1}) {
        for (const auto &sql : statementsOf(database.shared(), "pool_cut", {{"at", std::to_string(at)}}))
            database.queue(sql, {number(pool.id)});
    }
    int64_t count = 0;
    const Table changed = database.ask(sqlOf(database.shared(), "retire_ranges", retired),
                                       {number(pool.id), number(range.first), number(range.last)});
    for (const auto &row : changed.rows) count += integer(row[0]);
    return count;
}

// ---- giving

// Returns where a block of addresses begins among the unit's rows, or its first value; the number of rows when there is
// none.
size_t blockIn(const Rows &rows, const Given &given) {
    const auto count = size_t(given.count);
    size_t at = 0;
    for (; at < rows.size(); ++at) {
        if (given.kind == "values") return at;
        const int64_t first = integer(rows[at][3]);
        if (at + count > rows.size() || first % kBlock + given.count > kBlock) continue;
        if (integer(rows[at + count - 1][3]) == first + given.count - 1) return at;
    }
    return at;
}

// Queues the question what the units have. Without a block `had` says how many they had, if `first`.
void fetch(Database &database, const Givens &all, bool first) {
    Json units = Json::array();
    for (const Given *const given : all) units.push_back(given->unit);
    database.queue(sqlOf(database.shared(), "taken"), {dump(units)}, [all, first](Table taken) {
        std::map<std::pair<std::string, std::string>, Rows> byUnit;
        for (auto &row : taken.rows) byUnit[{*row[0], *row[1]}].push_back(std::move(row));
        for (Given *const given : all) {
            const Rows &rows = byUnit[{given->unit, given->pool}];
            const size_t at = blockIn(rows, *given);
            given->values.clear();
            for (size_t i = at; i < rows.size() && i < at + size_t(given->count); ++i)
                given->values.push_back(*rows[i][2]);
            if (first) given->had = given->values.empty() ? int64_t(rows.size()) : 0;
        }
    });
}

// Queues what gives as much of one pool to each of the units. The pool is locked.
void giveOf(Database &database, const Givens &all) {
    const Given &one = *all.front();
    const std::string count = std::to_string(one.count);
    const Words words = {{"count", count}, {"pool", "(SELECT id FROM pools WHERE name = $1)"}};
    Json takers = Json::array();
    for (const Given *const given : all) {
        takers.push_back({{"run", given->run}, {"unit", given->unit}, {"place", takers.size()}});
    }
    for (const std::string &sql : statementsOf(database.shared(), "take_" + one.kind, words)) {
        std::vector<Value> values = {one.pool, dump(takers), isoTime(WallClock::now())};
        while (sql.find(fmt::format("${}", values.size())) == std::string::npos) values.pop_back();
        database.queue(sql, values);
    }
    if (one.block != one.count) database.queue("UPDATE pools SET block = $2 WHERE name = $1", {one.pool, count});
    database.queue(sqlOf(database.shared(), "left", words), {one.pool}, [all](const Table &left) {
        for (Given *const given : all) {
            given->left = integer(left.rows.at(0)[1]);
            given->low = given->left < integer(left.rows[0][0]);
        }
    });
}

}  // namespace

std::string storeForm(const std::string &value) {
    const auto mac = parseMac(value);
    return mac ? formatMac(*mac) : value;
}

std::vector<std::string> addRange(Database &database, const std::string &pool, const std::string &first,
                                  const std::string &last, int low) {
    return add(database, pool, "addresses", low, {{}, {{0, first, rangeOf(first, last)}}}).unusual;
}

Imported importFile(Database &database, const std::string &name, const std::filesystem::path &path,
                    const std::string &kind, int low) {
    const auto known = findPool(database, name);
    if (!known && kind.empty()) {
        throw Refusal(fmt::format("the pool \"{}\" is new: add --kind addresses or --kind values", name));
    }
    const std::string all = kind.empty() ? known->kind : kind;
    return add(database, name, all, low, read(path, all == "addresses"));
}

int64_t retire(Database &database, const std::string &name, const std::string &first, const std::string &last,
               bool undo) {
    if (undo && first.empty()) {
        throw Refusal("a whole pool cannot be put back, since parts of it may be retired for a reason: name the value,"
                      " the address or the range");
    }
    const Words retired = {{"retired", undo ? "FALSE" : "TRUE"}};
    int64_t count = 0;
    database.transact([&] {
        database.lock({"pool " + name, "pools"});
        const auto pool = findPool(database, name);
        if (!pool) throw Refusal(unknown(name));
        if (pool->kind == "addresses") {
            const Range range = first.empty() ? kAll : rangeOf(first, last.empty() ? first : last);
            count = retireRange(database, *pool, range, retired);
        } else if (last.empty()) {
            count = database.run(sqlOf(database.shared(), "retire_values", retired), {number(pool->id), first});
        } else {
            throw Refusal(fmt::format("the pool \"{}\" has values, which have no order: name one value", name));
        }
        if (count > 0) return;
        throw Refusal(fmt::format("nothing was changed: the pool \"{}\" has nothing {} of what was named", name,
                                  undo ? "retired" : "left"));
    });
    return count;
}

std::set<std::string> poolNames(const std::string &store) {
    std::set<std::string> names;
    const bool file = store.find("://") == std::string::npos;
    std::error_code denied;
    if (file && !std::filesystem::exists(store, denied) && !denied) return names;
    const auto database = openStore(store, Database::Missing::kIsIgnored);
    database->giveUpAfter(kForNames);
    if (database->version() == 0) return names;
    for (const auto &row : database->ask("SELECT name FROM pools").rows) names.insert(*row[0]);
    return names;
}

Table listPools(Database &database) {
    const std::string weekAgo = isoTime(WallClock::now() - std::chrono::hours(7 * 24));
    return database.ask(sqlOf(database.shared(), "pools", {{"count", "q.block"}}), {weekAgo});
}

Table listRanges(Database &database, const std::string &pool) {
    const auto known = findPool(database, pool);
    if (!known) throw Refusal(unknown(pool));
    if (known->kind == "values")
        throw Refusal(fmt::format("the pool \"{}\" has values, no ranges: \"qcstation pool list\" counts them", pool));
    return database.ask(sqlOf(database.shared(), "pool_ranges"), {pool});
}

std::vector<std::string> poolWarnings(Database &database) {
    Strings warnings;
    for (const auto &row : listPools(database).rows) {
        if (!row.back()) continue;
        warnings.push_back(fmt::format("the pool \"{}\" has enough for {} more units ({}): add to it with \"qcstation"
                                       " pool add\" or \"qcstation pool import\"",
                                       *row[0], *row[6], *row.back()));
    }
    return warnings;
}

void askWhatUnitsHave(Database &database, const Givens &all) {
    database.queue("SELECT name, kind, block FROM pools", {}, [all](const Table &pools) {
        for (const auto &row : pools.rows) {
            for (Given *const given : all) {
                if (given->pool == row[0]) given->kind = *row[1], given->block = integer(row[2]);
            }
        }
    });
    fetch(database, all, true);
}

void give(Database &database, const Givens &all) {
    std::map<std::pair<std::string, int>, Givens> lacking;
    std::set<std::string> locks;
    std::set<std::pair<std::string, std::string>> takers;
    for (Given *const given : all) {
        if (given->kind.empty() || !given->values.empty() || (given->kind == "values" && given->count > 1)) continue;
        // A board that gave up waiting may ask again before it has its first answer.
        if (!takers.emplace(given->pool, given->unit).second) continue;
        lacking[{given->pool, given->count}].push_back(given);
        locks.insert("pool " + given->pool);
    }
    if (lacking.empty()) return;
    database.lock(locks);
    for (const auto &[group, givens] : lacking) giveOf(database, givens);
    fetch(database, all, false);
}

const std::vector<std::string> &valuesOf(const Given &given) {
    if (given.kind.empty()) throw Refusal(unknown(given.pool));
    if (given.kind == "values" && given.count > 1) {
        throw Refusal(fmt::format("the pool \"{}\" has values, which have no order: a command that takes {} at a time"
                                  " needs a pool of addresses",
                                  given.pool, given.count));
    }
    if (!given.values.empty()) return given.values;
    throw Refusal(fmt::format("the pool \"{}\" is empty{}: add to it with \"qcstation pool add\" or \"qcstation pool"
                              " import\"",
                              given.pool, given.count > 1 ? fmt::format(" of blocks of {}", given.count) : ""));
}

}  // namespace station
