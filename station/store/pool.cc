#include "station/store/pool.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>

#include "station/base/mac.h"
#include "station/base/time.h"

namespace station {
namespace {

constexpr int64_t kLastByte = 0xFF;

struct Range {
    Mac first, last;
};

struct Pool {
    int64_t id = 0;
    bool ofAddresses = false;
    int64_t low = kLow;
};

Mac needMac(const std::string &text) {
    const auto mac = parseMac(text);
    if (!mac) throw Refusal(fmt::format("\"{}\" is not a MAC address", text));
    return *mac;
}

int64_t integer(const Value &value) { return value ? std::stoll(*value) : 0; }

std::optional<Pool> findPool(Database &database, const std::string &name) {
    const Table found = database.ask("SELECT id, kind, low FROM pools WHERE name = $1", {name});
    if (found.empty()) return std::nullopt;
    const auto &row = found.rows[0];
    return Pool{integer(row[0]), row[1] == "addresses", integer(row[2])};
}

Pool needPool(Database &database, const std::string &name) {
    if (const auto pool = findPool(database, name)) return *pool;
    throw Refusal(fmt::format("there is no pool \"{0}\": qcstation pool add {0} FIRST LAST makes it", name));
}

// The pool of this name, made if need be.
Pool openPool(Database &database, const std::string &name, bool ofAddresses, int low) {
    database.run("INSERT INTO pools (name, kind, low) VALUES ($1, $2, $3) ON CONFLICT (name) DO NOTHING",
                 {name, ofAddresses ? "addresses" : "values", number(kLow)});
    const Pool pool = needPool(database, name);
    if (pool.ofAddresses != ofAddresses) {
        throw Refusal(fmt::format("the pool \"{}\" is {} addresses", name, ofAddresses ? "not one of" : "one of"));
    }
    if (low >= 0) database.run("UPDATE pools SET low = $1 WHERE id = $2", {number(low), number(pool.id)});
    return pool;
}

// The first byte's lowest bit marks addresses of groups, broadcast among them.
void checkRange(Range range) {
    if (range.first > range.last) throw Refusal("the first address is above the last");
    if (range.first == 0) throw Refusal("00:00:00:00:00:00 is no board's address");
    if (range.first >> 40 != range.last >> 40) throw Refusal("the range's first byte must be one and the same");
    if (!isIndividual(range.first)) throw Refusal(fmt::format("{} is a multicast address", formatMac(range.first)));
}

void add(Database &database, const Pool &pool, Range range) {
    checkRange(range);
    const Table other = database.ask("SELECT p.name, r.first, r.last FROM ranges r JOIN pools p ON p.id = r.pool"
                                     " WHERE r.first <= $1 AND r.last >= $2 ORDER BY r.first LIMIT 1",
                                     {number(range.last), number(range.first)});
    if (!other.empty()) {
        const auto &row = other.rows[0];
        throw Refusal(fmt::format("{} to {} overlaps {} to {} of the pool \"{}\"", formatMac(range.first),
                                  formatMac(range.last), formatMac(integer(row[1])), formatMac(integer(row[2])),
                                  *row[0]));
    }
    database.run("INSERT INTO ranges (pool, first, last, next, retired) VALUES ($1, $2, $3, $2, FALSE)",
                 {number(pool.id), number(range.first), number(range.last)});
}

// The fields of a line of comma-separated values; a quoted one may hold commas, and quotes twice each.
std::vector<std::string> fieldsOf(const std::string &line) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const bool quote = line[i] == '"';
        if (quote && quoted && i + 1 < line.size() && line[i + 1] == '"') {
            fields.back() += line[++i];
        } else if (quote) {
            quoted = !quoted;
        } else if (line[i] == ',' && !quoted) {
            fields.emplace_back();
        } else {
            fields.back() += line[i];
        }
    }
    if (quoted) throw Refusal("a quote has no end");
    return fields;
}

struct Row {
    int line;
    std::vector<std::string> fields;
};

std::vector<Row> readRows(const std::filesystem::path &path) {
    std::ifstream file(path);
    std::vector<Row> rows;
    std::string line;
    for (int at = 1; std::getline(file, line); ++at) {
        if (line.ends_with('\r')) line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        try {
            rows.push_back({at, fieldsOf(line)});
        } catch (const Refusal &error) {
            throw Refusal(fmt::format("{}:{}: {}", path.string(), at, error.what()));
        }
    }
    if (rows.empty()) throw Refusal(fmt::format("cannot read {}, or it has no rows", path.string()));
    return rows;
}

bool isAddress(const Row &row) {
    try {
        for (const std::string &field : row.fields) needMac(field);
        return row.fields.size() <= 2;
    } catch (const Refusal &) {
        return false;
    }
}

Range rangeOf(const Row &row) {
    if (row.fields.size() > 2) throw Refusal("more than FIRST,LAST");
    return {needMac(row.fields.front()), needMac(row.fields.back())};
}

// Addresses that follow each other become one range, so that blocks can be taken of it.
int64_t importAddresses(Database &database, const Pool &pool, std::vector<Range> ranges) {
    std::sort(ranges.begin(), ranges.end(), [](Range a, Range b) { return a.first < b.first; });
    int64_t added = 0;
    for (size_t i = 0; i < ranges.size(); ++i) {
        Range whole = ranges[i];
        while (i + 1 < ranges.size() && ranges[i + 1].first == whole.last + 1) whole.last = ranges[++i].last;
        add(database, pool, whole);
        added += whole.last - whole.first + 1;
    }
    return added;
}

void importValue(Database &database, const Pool &pool, const Row &row) {
    const Value value = row.fields.size() == 1 ? text(row.fields[0]) : std::nullopt;
    if (!value) throw Refusal("one value a row is needed; quote one that holds a comma");
    const long long added = database.run(
        "INSERT INTO pool_rows (pool, value, retired) VALUES ($1, $2, FALSE) ON CONFLICT (pool, value) DO NOTHING",
        {number(pool.id), value});
    if (added == 0) throw Refusal(fmt::format("\"{}\" is in the pool already", *value));
}

// The next block of the range, if there is room for it before the sixth byte's carry or behind it.
std::optional<Range> blockOf(Range free, int count) {
    int64_t first = free.first;
    if ((first & kLastByte) + count > kLastByte + 1) first = (first | kLastByte) + 1;
    if ((first & kLastByte) + count > kLastByte + 1 || first + count - 1 > free.last) return std::nullopt;
    return Range{first, first + count - 1};
}

std::optional<Range> takeBlock(Database &database, const Pool &pool, int count) {
    const Table ranges = database.ask(
        "SELECT id, next, last FROM ranges WHERE pool = $1 AND NOT retired AND next <= last ORDER BY first",
        {number(pool.id)});
    for (const auto &row : ranges.rows) {
        const Range free{integer(row[1]), integer(row[2])};
        const std::optional<Range> block = blockOf(free, count);
        if (!block) continue;
        if (block->first > free.first) {  // what was too short stays a range of its own, for smaller boards
            database.run("INSERT INTO ranges (pool, first, last, next, retired) VALUES ($1, $2, $3, $2, FALSE)",
                         {number(pool.id), number(free.first), number(block->first - 1)});
            database.run("UPDATE ranges SET first = $1 WHERE id = $2", {number(block->first), row[0]});
        }
        database.run("UPDATE ranges SET next = $1 WHERE id = $2", {number(block->last + 1), row[0]});
        return block;
    }
    return std::nullopt;
}

std::string shortOf(const std::string &name, int count) {
    return fmt::format("the pool \"{}\" is empty{}: qcstation pool add, or import, fills it", name,
                       count > 1 ? fmt::format(" of blocks of {}", count) : "");
}

struct Taker {
    int64_t unit;
    std::string run;
};

std::vector<std::string> takeAddresses(Database &database, const std::string &name, const Pool &pool, Taker taker,
                                       int count) {
    const std::optional<Range> block = takeBlock(database, pool, count);
    if (!block) throw Refusal(shortOf(name, count));
    std::vector<std::string> values;
    std::string rows;
    std::vector<Value> cells = {number(pool.id), number(taker.unit), taker.run, isoTime(WallClock::now())};
    for (int64_t address = block->first; address <= block->last; ++address) {
        values.push_back(formatMac(address));
        rows += fmt::format("{}($1, ${}, ${}, $2, $3, $4, FALSE)", rows.empty() ? "" : ", ", cells.size() + 1,
                            cells.size() + 2);
        cells.insert(cells.end(), {values.back(), number(address)});
    }
    database.run("INSERT INTO pool_rows (pool, value, number, unit, run, bound, retired) VALUES " + rows, cells);
    return values;
}

std::vector<std::string> takeRows(Database &database, const std::string &name, const Pool &pool, Taker taker,
                                  int count) {
    const Table rows = database.ask(
        fmt::format("SELECT id, value FROM pool_rows WHERE pool = $1 AND unit IS NULL AND NOT retired ORDER BY id"
                    " LIMIT {}",
                    count),
        {number(pool.id)});
    if (rows.rows.size() < size_t(count)) throw Refusal(shortOf(name, count));
    std::vector<std::string> values;
    for (const auto &row : rows.rows) {
        values.push_back(*row[1]);
        database.run("UPDATE pool_rows SET unit = $1, run = $2, bound = $3 WHERE id = $4",
                     {number(taker.unit), taker.run, isoTime(WallClock::now()), row[0]});
    }
    return values;
}

int64_t countLeft(Database &database, const Pool &pool) {
    const Table left = database.ask(
        pool.ofAddresses ? "SELECT coalesce(sum(last - next + 1), 0) FROM ranges WHERE pool = $1 AND NOT retired"
                         : fmt::format("SELECT count(*) FROM (SELECT 1 FROM pool_rows WHERE pool = $1 AND unit IS NULL"
                                       " AND NOT retired LIMIT {}) AS free",
                                       std::max<int64_t>(pool.low, 1)),
        {number(pool.id)});
    return integer(left.rows[0][0]);
}

int64_t idOf(Database &database, const std::string &sql, const std::string &key) {
    const Table found = database.ask(sql, {key});
    if (found.empty()) throw Refusal(fmt::format("the store knows nothing of {}", key));
    return integer(found.rows[0][0]);
}

}  // namespace

void addRange(Database &database, const std::string &pool, const std::string &first, const std::string &last, int low) {
    const Range range{needMac(first), needMac(last)};
    database.transact([&] {
        database.lockPools();
        add(database, openPool(database, pool, true, low), range);
    });
}

int64_t importRows(Database &database, const std::string &name, const std::filesystem::path &file, int low) {
    const std::vector<Row> rows = readRows(file);
    int64_t added = 0;
    database.transact([&] {
        database.lockPools();
        const std::optional<Pool> known = findPool(database, name);
        const bool addresses = known ? known->ofAddresses : std::all_of(rows.begin(), rows.end(), isAddress);
        const Pool pool = openPool(database, name, addresses, low);
        std::vector<Range> ranges;
        for (const Row &row : rows) try {
                if (addresses) ranges.push_back(rangeOf(row));
                if (addresses) checkRange(ranges.back());
                if (!addresses) importValue(database, pool, row);
            } catch (const Refusal &error) {
                throw Refusal(fmt::format("{}:{}: {}", file.string(), row.line, error.what()));
            }
        added = addresses ? importAddresses(database, pool, ranges) : int64_t(rows.size());
    });
    return added;
}

int64_t retire(Database &database, const std::string &name, const std::string &value) {
    int64_t retired = 0;
    database.transact([&] {
        database.lockPools();
        const Pool pool = needPool(database, name);
        std::string where = " WHERE pool = $1 AND NOT retired";
        std::vector<Value> which = {number(pool.id)};
        if (!value.empty()) {
            where += pool.ofAddresses ? " AND CAST($2 AS BIGINT) BETWEEN first AND last" : " AND value = $2";
            which.push_back(pool.ofAddresses ? number(needMac(value)) : value);
        }
        if (pool.ofAddresses) {
            const std::string left = "SELECT coalesce(sum(last - next + 1), 0) FROM ranges" + where;
            retired = integer(database.ask(left, which).rows[0][0]);
            database.run("UPDATE ranges SET retired = TRUE" + where, which);
        } else {
            retired = database.run("UPDATE pool_rows SET retired = TRUE" + where + " AND unit IS NULL", which);
        }
        if (retired == 0) throw Refusal(fmt::format("nothing of that is left in the pool \"{}\"", name));
    });
    return retired;
}

std::set<std::string> poolNames(const std::string &store) {
    std::set<std::string> names;
    const bool file = store.find("://") == std::string::npos;
    if (file && !std::filesystem::exists(store)) return names;
    const auto database = openStore(store, Database::Missing::kIsIgnored);
    if (database->version() == 0) return names;
    for (const auto &row : database->ask("SELECT name FROM pools").rows) names.insert(*row[0]);
    return names;
}

Table listPools(Database &database) {
    Table list{{"pool", "first", "last", "given", "left", "retired", "low"}, {}};
    const Table ranges = database.ask(
        "SELECT p.name, r.first, r.last, r.next - r.first, CASE WHEN r.retired THEN 0 ELSE r.last - r.next + 1 END,"
        " CASE WHEN r.retired THEN r.last - r.next + 1 ELSE 0 END, p.low FROM ranges r JOIN pools p ON p.id = r.pool"
        " ORDER BY p.name, r.first");
    for (auto row : ranges.rows) {
        row[1] = formatMac(integer(row[1]));
        row[2] = formatMac(integer(row[2]));
        list.rows.push_back(row);
    }
    const Table values = database.ask(
        "SELECT p.name, NULL, NULL, count(b.unit), sum(CASE WHEN b.unit IS NULL AND NOT b.retired THEN 1 ELSE 0"
        " END), sum(CASE WHEN b.retired THEN 1 ELSE 0 END), p.low FROM pool_rows b JOIN pools p ON p.id = b.pool WHERE "
        "p.kind = 'values'"
        " GROUP BY p.name, p.low ORDER BY p.name");
    list.rows.insert(list.rows.end(), values.rows.begin(), values.rows.end());
    return list;
}

Given take(Database &database, const std::string &name, const std::string &serial, const std::string &run, int count) {
    database.lockPools();
    const Pool pool = needPool(database, name);
    const Taker taker{idOf(database, "SELECT id FROM units WHERE serial = $1", serial), run};
    const Table before = database.ask("SELECT value FROM pool_rows WHERE unit = $1 AND pool = $2 ORDER BY id",
                                      {number(taker.unit), number(pool.id)});
    Given given;
    for (const auto &row : before.rows) given.values.push_back(*row[0]);
    if (given.values.empty()) {
        given.values = pool.ofAddresses ? takeAddresses(database, name, pool, taker, count)
                                        : takeRows(database, name, pool, taker, count);
    }
    if (given.values.size() < size_t(count)) {
        throw Refusal(fmt::format("the unit {} has {} of the pool \"{}\" from before and now wants {}", serial,
                                  given.values.size(), name, count));
    }
    given.values.resize(size_t(count));
    given.left = countLeft(database, pool);
    given.low = given.left < pool.low;
    return given;
}

}  // namespace station
