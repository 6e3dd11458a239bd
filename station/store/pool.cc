#include "station/store/pool.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <optional>

#include "station/base/text.h"
#include "station/base/time.h"
#include "station/plan/variables.h"

namespace station {
namespace {

using Strings = std::vector<std::string>;

constexpr int kBlock = 256;                    // addresses between two carries of the sixth byte
constexpr size_t kRows = 500;                  // that one statement inserts
constexpr size_t kShownLines = 10;             // of a file, when it is refused
constexpr std::chrono::seconds kForNames{10};  // to answer, before a line starts or is read again

struct Range {
    Mac first, last;
};

struct Pool {
    int64_t id = 0;
    std::string kind;
};

int64_t integer(const Value &value) { return value ? std::stoll(*value) : 0; }

std::optional<Pool> findPool(Database &database, const std::string &name) {
    const Table found = database.ask("SELECT id, kind FROM pools WHERE name = $1", {name});
    if (found.empty()) return std::nullopt;
    return Pool{integer(found.rows[0][0]), *found.rows[0][1]};
}

std::string unknown(const std::string &name) {
    return fmt::format("there is no pool \"{}\": \"qcstation pool add\" or \"pool import\" makes it", name);
}

// Returns the pool of this name and kind; makes it if there is none. Throws Refusal when it is of another kind.
Pool openPool(Database &database, const std::string &name, const std::string &kind, int low) {
    const std::string fault = faultOfName(name);
    if (!fault.empty() && !findPool(database, name)) throw Refusal("a plan cannot ask for this pool: " + fault);
    database.queue("INSERT INTO pools (name, kind, low) VALUES ($1, $2, $3) ON CONFLICT (name) DO NOTHING",
                   {name, kind, number(kLow)});
    Pool pool = *findPool(database, name);
    if (pool.kind != kind) throw Refusal(fmt::format("the pool \"{}\" is one of {}, not of {}", name, pool.kind, kind));
    if (low >= 0) database.queue("UPDATE pools SET low = $1 WHERE id = $2", {number(low), number(pool.id)});
    return pool;
}

Mac addressOf(const std::string &text) {
    if (const auto mac = parseMac(text)) return *mac;
    throw Refusal(fmt::format("\"{}\" is not a MAC address", text));
}

void checkRange(Range range) {
    if (range.first > range.last) throw Refusal("the first address is above the last");
    if (range.first == 0) throw Refusal("00:00:00:00:00:00 is no board's address");
    if (range.first >> 40 != range.last >> 40) throw Refusal("the range's first byte must be one and the same");
    if (!isIndividual(range.first)) throw Refusal(fmt::format("{} is a multicast address", formatMac(range.first)));
}

std::string textOf(Range range) { return fmt::format("{} to {}", formatMac(range.first), formatMac(range.last)); }

void addUnusual(Strings &unusual, Range range) {
    if (range.first >> 24 != range.last >> 24) {
        unusual.push_back(textOf(range) + " has addresses of more than one maker: the first three bytes change");
    }
    if (range.first >> 40 & 2) {
        unusual.push_back(textOf(range) + " is locally administered: no registry keeps others from using it");
    }
}

// Inserts the rows, many per statement. `head` ends with "VALUES".
void insertRows(Database &database, const std::string &head, const std::vector<std::vector<Value>> &rows,
                const std::string &tail = {}) {
    for (size_t begin = 0; begin < rows.size(); begin += kRows) {
        std::string sql = head;
        std::vector<Value> values;
        for (size_t i = begin; i < std::min(begin + kRows, rows.size()); ++i) {
            sql += i > begin ? ", (" : " (";
            for (const Value &value : rows[i]) {
                values.push_back(value);
                sql += fmt::format("{}${}", &value == rows[i].data() ? "" : ", ", values.size());
            }
            sql += ")";
        }
        database.queue(sql + tail, values);
    }
}

int64_t newest(Database &database, const char *table) {
    return integer(database.ask(fmt::format("SELECT max(id) FROM {}", table)).rows[0][0]);
}

// Returns SQL that formats a number as an address.
std::string addressIn(const Database &database, const std::string &number) {
    if (database.shared()) {
        return fmt::format(R"(upper(regexp_replace(lpad(to_hex({}), 12, '0'), '(..)(?=.)', '\1:', 'g')))", number);
    }
    std::string bytes;
    for (int shift = 40; shift >= 0; shift -= 8) bytes += fmt::format(", ({} >> {}) & 255", number, shift);
    return fmt::format("printf('%02X:%02X:%02X:%02X:%02X:%02X'{})", bytes);
}

// Returns the range that contains the address; null when none does. The ranges must be sorted.
const Range *find(const std::vector<Range> &ranges, Mac address) {
    const auto after = std::upper_bound(ranges.begin(), ranges.end(), address,
                                        [](Mac mac, const Range &range) { return mac < range.first; });
    const bool has = after != ranges.begin() && std::prev(after)->last >= address;
    return has ? &*std::prev(after) : nullptr;
}

// Throws Refusal when ranges in the store overlap.
void refuseOverlaps(Database &database) {
    const Table ranges = database.ask(
        "SELECT first, last, last_before, name FROM (SELECT r.first, r.last, max(r.last) OVER (ORDER BY r.first"
        " ROWS BETWEEN UNBOUNDED PRECEDING AND 1 PRECEDING) AS last_before, lag(p.name) OVER (ORDER BY r.first) AS name"
        " FROM ranges r JOIN pools p ON p.id = r.pool) AS sorted WHERE first <= last_before LIMIT 1");
    for (const auto &row : ranges.rows) {
        throw Refusal(fmt::format("{} overlaps a range of the pool \"{}\" that ends with {}",
                                  textOf({integer(row[0]), integer(row[1])}), *row[3], formatMac(integer(row[2]))));
    }
}

// Throws Refusal when any pool has an address of these sorted ranges as a value. Reads the values once: the new ranges
// are not in the database yet, so a query per range would scan all values each time. Values that were added before
// version 2 of the schema have no number, so those are parsed.
void refuseKnown(Database &database, const std::vector<Range> &ranges) {
    Value known;
    const auto look = [&](const Table &, const std::vector<Value> &row) {
        const auto mac = parseMac(*row[0]);
        if (!known && mac && find(ranges, *mac))
            known = fmt::format("{} is in the pool \"{}\" already", *row[0], *row[1]);
    };
    const std::string values = "SELECT b.value, p.name FROM pool_rows b JOIN pools p ON p.id = b.pool WHERE b.number ";
    database.each(values + "BETWEEN $1 AND $2", {number(ranges.front().first), number(ranges.back().last)}, look);
    database.each(values + "IS NULL AND length(b.value) = 17", {}, look);
    if (known) throw Refusal(*known);
}

// Joins consecutive ranges, so that blocks can be taken across their borders.
std::vector<Range> joined(std::vector<Range> ranges) {
    std::sort(ranges.begin(), ranges.end(), [](Range a, Range b) { return a.first < b.first; });
    std::vector<Range> all;
    for (const Range range : ranges) {
        if (!all.empty() && all.back().last + 1 == range.first && all.back().first >> 40 == range.first >> 40) {
            all.back().last = range.last;
        } else {
            all.push_back(range);
        }
    }
    return all;
}

int64_t addRanges(Database &database, const Pool &pool, const std::vector<Range> &ranges, Strings &unusual) {
    const std::vector<Range> all = joined(ranges);
    refuseKnown(database, all);
    std::vector<std::vector<Value>> rows;
    int64_t added = 0;
    for (const Range range : all) {
        added += range.last - range.first + 1;
        rows.push_back({number(pool.id), number(range.first), number(range.last), number(range.first), "0"});
        if (unusual.size() < kShownLines) addUnusual(unusual, range);
    }
    insertRows(database, "INSERT INTO ranges (pool, first, last, next, retired) VALUES", rows);
    refuseOverlaps(database);
    return added;
}

// ---- files

struct Row {
    int line;
    Strings fields;
};

std::string trimmed(const std::string &text) {
    const size_t begin = text.find_first_not_of(" \t\r");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
}

// Returns the fields of a line of CSV. A quoted field may hold commas, and quotes that are doubled.
Strings fieldsOf(const std::string &line) {
    Strings fields(1);
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
    for (std::string &field : fields) field = trimmed(field);
    return fields;
}

class File {
public:
    explicit File(const std::filesystem::path &path) : path_(path) {
        std::ifstream file(path);
        std::string line;
        for (int at = 1; std::getline(file, line); ++at) {
            if (at == 1 && line.starts_with("\uFEFF")) line.erase(0, 3);
            line = trimmed(line);
            if (line.empty() || line[0] == '#') continue;
            check(at, [&] {
                if (text(line) != line) throw Refusal("it is no text in UTF-8: save the file as that");
                rows_.push_back({at, fieldsOf(line)});
            });
        }
        if (rows_.empty() && faults_.empty()) fault("there are no rows in it, or it cannot be read");
        refuseFaults();
    }
    const std::vector<Row> &rows() const { return rows_; }

    // Returns the converted rows. Throws one Refusal with all that `convert` has thrown.
    template <typename Convert>
    auto convert(Convert &&convert) {
        std::vector<decltype(convert(rows_[0]))> results;
        for (const Row &row : rows_) check(row.line, [&] { results.push_back(convert(row)); });
        refuseFaults();
        return results;
    }
    [[noreturn]] void refuse(int line, const std::string &why) { faults_.clear(), fault(line, why), throw refusal(); }
    int lineOf(const std::string &value) const {
        const auto found =
            std::find_if(rows_.begin(), rows_.end(), [&](const Row &row) { return row.fields[0] == value; });
        return found == rows_.end() ? 0 : found->line;
    }

private:
    void check(int line, const std::function<void()> &work) try { work(); } catch (const Refusal &error) {
        fault(line, error.what());
    }
    void fault(int line, const std::string &why) { fault(fmt::format("{}: {}", line, why)); }
    void fault(const std::string &what) { faults_.push_back(fmt::format("{}:{}", path_.string(), what)); }
    Refusal refusal() const {
        std::string all;
        for (size_t i = 0; i < std::min(faults_.size(), kShownLines); ++i) all += (i ? "\n" : "") + faults_[i];
        if (faults_.size() > kShownLines) all += fmt::format("\nand {} more lines", faults_.size() - kShownLines);
        return Refusal(all);
    }
    void refuseFaults() const {
        if (!faults_.empty()) throw refusal();
    }

    const std::filesystem::path path_;
    std::vector<Row> rows_;
    Strings faults_;
};

Range rangeOf(const Row &row) {
    if (row.fields.size() > 2) throw Refusal("an address, or FIRST,LAST, is wanted");
    const Range range{addressOf(row.fields.front()), addressOf(row.fields.back())};
    checkRange(range);
    return range;
}

std::vector<Value> valueOf(const Row &row) {
    const std::string &value = row.fields[0];
    if (row.fields.size() != 1 || value.empty()) throw Refusal("one value a row is wanted; quote one with a comma");
    const auto isControl = [](char byte) { return uint8_t(byte) < ' ' || byte == 0x7F; };
    if (std::any_of(value.begin(), value.end(), isControl)) throw Refusal("a tab or control character is in the value");
    const auto mac = parseMac(value);
    return {value, mac ? number(*mac) : std::nullopt};
}

// Throws Refusal when a file has both addresses and values: it is probably a file of addresses with a mistake.
void refuseMixture(File &file, const std::vector<std::vector<Value>> &values) {
    const auto isWritten = [](const std::vector<Value> &row) { return row[1] && row[0]->size() == 17; };
    const auto addresses = std::count_if(values.begin(), values.end(), isWritten);
    if (addresses == 0 || size_t(addresses) == values.size()) return;
    const bool few = 2 * size_t(addresses) < values.size();
    size_t i = 0;
    file.convert([&](const Row &) {
        if (isWritten(values[i++]) == few)
            throw Refusal(few ? "an address among values" : "no address, unlike the others");
        return 0;
    });
}

using Rows = std::vector<std::vector<Value>>;

Rows valuesIn(File &file) {
    Rows values = file.convert(valueOf);
    refuseMixture(file, values);
    return values;
}

void refuseInRanges(Database &database, File &file, const Rows &rows) {
    std::vector<Range> ranges;
    Strings names;
    const Table known =
        database.ask("SELECT r.first, r.last, p.name FROM ranges r JOIN pools p ON p.id = r.pool ORDER BY r.first");
    for (const auto &row : known.rows) {
        ranges.push_back({integer(row[0]), integer(row[1])});
        names.push_back(*row[2]);
    }
    for (const auto &row : rows) {
        const Range *const range = row[2] ? find(ranges, integer(row[2])) : nullptr;
        if (range == nullptr) continue;
        file.refuse(file.lineOf(*row[1]), fmt::format("\"{}\" is an address of the pool \"{}\"", *row[1],
                                                      names[size_t(range - ranges.data())]));
    }
}

int64_t addValues(Database &database, const Pool &pool, File &file, Rows rows) {
    const int64_t before = newest(database, "pool_rows");
    for (auto &row : rows) row.insert(row.begin(), number(pool.id)), row.emplace_back("0");
    insertRows(database, "INSERT INTO pool_rows (pool, value, number, retired) VALUES", rows,
               " ON CONFLICT DO NOTHING");
    const std::string added = fmt::format("FROM pool_rows WHERE pool = {} AND id > {}", pool.id, before);
    if (integer(database.ask("SELECT count(*) " + added).rows[0][0]) < int64_t(rows.size())) {
        std::set<std::string> missing;
        for (const auto &row : rows) {
            const std::string &value = *row[1];
            if (!missing.insert(value).second)
                file.refuse(file.lineOf(value), fmt::format("\"{}\" is there twice", value));
        }
        for (const auto &row : database.ask("SELECT value " + added).rows) missing.erase(*row[0]);
        const std::string &value = *missing.begin();
        file.refuse(file.lineOf(value),
                    fmt::format("\"{}\" is in this pool already, or in another as an address", value));
    }
    refuseInRanges(database, file, rows);
    return int64_t(rows.size());
}

// ---- retiring

// Splits the range that has both this address and the one before it, so that a range begins at this address.
void cut(Database &database, const Pool &pool, Mac at) {
    const std::string both = fmt::format("WHERE pool = {0} AND first < {1} AND last >= {1}", pool.id, at);
    database.queue(fmt::format("INSERT INTO ranges (pool, first, last, next, retired) SELECT pool, first, {0} - 1,"
                               " CASE WHEN next < {0} THEN next ELSE {0} END, retired FROM ranges {1}",
                               at, both));
    database.queue(
        fmt::format("UPDATE ranges SET first = {0}, next = CASE WHEN next < {0} THEN {0} ELSE next END {1}", at, both));
}

int64_t retireRange(Database &database, const Pool &pool, const std::optional<Range> &range, bool undo) {
    std::string where = fmt::format("WHERE pool = {} AND next <= last AND {}retired", pool.id, undo ? "" : "NOT ");
    if (range) {
        cut(database, pool, range->first);
        cut(database, pool, range->last + 1);
        where += fmt::format(" AND first >= {} AND last <= {}", range->first, range->last);
    }
    const int64_t count =
        integer(database.ask("SELECT coalesce(sum(last - next + 1), 0) FROM ranges " + where).rows[0][0]);
    database.queue(fmt::format("UPDATE ranges SET retired = {} {}", undo ? "FALSE" : "TRUE", where));
    return count;
}

int64_t retireValues(Database &database, const Pool &pool, const std::string &value, bool undo) {
    return database.run(fmt::format("UPDATE pool_rows SET retired = {} WHERE pool = {} AND unit IS NULL AND {}retired"
                                    " AND ($1 = '' OR value = $1)",
                                    undo ? "FALSE" : "TRUE", pool.id, undo ? "" : "NOT "),
                        {value});
}

// ---- giving

// SQL: how many blocks of {count} addresses a range still has. A block must not cross a carry of the sixth byte.
constexpr const char *kBlocks = "CASE WHEN {next} / 256 = {last} / 256 THEN ({last} - {next} + 1) / {count} ELSE"
                                " (256 - {next} % 256) / {count} + ({last} / 256 - {next} / 256 - 1) * (256 / {count})"
                                " + ({last} % 256 + 1) / {count} END";

std::string blocksOf(const std::string &range, const std::string &count) {
    using namespace fmt::literals;
    return fmt::format(fmt::runtime(kBlocks), "next"_a = range + ".next", "last"_a = range + ".last",
                       "count"_a = count);
}

// In all statements below, $1 is the pool's name, $2 the run's and $3 the time. First choice: what the unit already
// has. kHas is the first of its addresses that begins a whole block.
constexpr const char *kPool = "(SELECT id FROM pools WHERE name = $1)";
constexpr const char *kUnit = "(SELECT unit FROM runs WHERE run = $2)";
constexpr const char *kHas = R"((SELECT min(a.number) FROM pool_rows a WHERE a.unit = {unit} AND a.pool = {pool}
    AND a.number % 256 + {count} <= 256 AND {count} = (SELECT count(*) FROM pool_rows c WHERE c.unit = a.unit
        AND c.pool = a.pool AND c.number BETWEEN a.number AND a.number + {count} - 1)))";

// Otherwise the lowest block of the first range that has room for one, before a carry of the sixth byte or after it.
constexpr const char *kChosen = R"(
free AS (SELECT r.first, r.next, r.last, CASE WHEN r.next % 256 + {count} > 256 THEN (r.next / 256 + 1) * 256 ELSE r.next
    END AS start FROM ranges r WHERE r.pool = {pool} AND r.next <= r.last AND NOT r.retired),
chosen AS (SELECT * FROM free WHERE start + {count} - 1 <= last AND {unit} IS NOT NULL AND {has} IS NULL
    ORDER BY first LIMIT 1))";

// The addresses before the carry are too few for this block. They become a range of their own, for smaller boards.
constexpr const char *kSplit = R"(INSERT INTO ranges (pool, first, last, next, retired)
    WITH {chosen} SELECT {pool}, first, start - 1, next, FALSE FROM chosen WHERE start > next)";
constexpr const char *kBind = R"(INSERT INTO pool_rows (pool, value, number, unit, run, bound, retired)
    WITH RECURSIVE {chosen}, block(number, stop) AS (SELECT start, start + {count} FROM chosen
        UNION ALL SELECT number + 1, stop FROM block WHERE number + 1 < stop)
    SELECT {pool}, {address}, number, {unit}, $2, {time}, FALSE FROM block)";
// Numbers from `next` on were bound just now.
constexpr const char *kAdvance = R"(UPDATE ranges SET
    first = (SELECT CASE WHEN min(b.number) > ranges.next THEN min(b.number) ELSE ranges.first END FROM pool_rows b
        WHERE b.number BETWEEN ranges.next AND ranges.last),
    next = (SELECT max(b.number) + 1 FROM pool_rows b WHERE b.number BETWEEN ranges.next AND ranges.last)
    WHERE id IN (SELECT r.id FROM pool_rows b JOIN ranges r ON r.pool = b.pool AND r.first <= b.number
        AND b.number BETWEEN r.next AND r.last AND r.next <= r.last AND NOT r.retired
        WHERE b.unit = {unit} AND b.pool = {pool}))";
constexpr const char *kBindValues = R"(UPDATE pool_rows SET unit = {unit}, run = $2, bound = $3 WHERE id IN (
    SELECT b.id FROM pool_rows b WHERE b.pool = {pool} AND b.unit IS NULL AND NOT b.retired
        AND {unit} IS NOT NULL AND {count} = 1 AND (SELECT kind FROM pools WHERE name = $1) = 'values'
    ORDER BY b.id LIMIT (SELECT CASE WHEN count(*) < {count} THEN {count} - count(*) ELSE 0 END FROM pool_rows h
        WHERE h.unit = {unit} AND h.pool = {pool})))";
constexpr const char *kResult = R"(SELECT b.value FROM pool_rows b JOIN pools p ON p.id = b.pool
    WHERE p.name = $1 AND b.unit = {unit} AND (p.kind = 'values' OR b.number BETWEEN {has} AND {has} + {count} - 1)
    ORDER BY CASE p.kind WHEN 'addresses' THEN b.number END, b.id LIMIT {count})";
constexpr const char *kHad = "SELECT count(*) FROM pool_rows b WHERE b.unit = {unit} AND b.pool = {pool} AND b.number"
                             " IS NOT NULL AND {has} IS NULL";
constexpr const char *kLeft = R"(SELECT p.kind, p.low, CASE p.kind
    WHEN 'addresses' THEN (SELECT coalesce(sum({blocks}), 0) FROM ranges r
        WHERE r.pool = p.id AND r.next <= r.last AND NOT r.retired)
    ELSE (SELECT count(*) FROM (SELECT 1 FROM pool_rows WHERE pool = {pool} AND unit IS NULL AND NOT retired
        LIMIT (SELECT (low + 1) * {count} FROM pools WHERE name = $1)) AS free) / {count} END
    FROM pools p WHERE p.name = $1)";

// The SQL that takes blocks of `count` addresses, or `count` values.
class Taking {
public:
    Taking(const Database &database, int count)
        : count_(std::to_string(count)),
          address_(addressIn(database, "number")),
          time_(database.shared() ? "$3::TIMESTAMPTZ" : "$3"),
          has_(fill(kHas)),
          chosen_(fill(kChosen)) {}

    std::string fill(const char *sql) const {
        using namespace fmt::literals;
        return fmt::format(fmt::runtime(sql), "count"_a = count_, "pool"_a = kPool, "unit"_a = kUnit, "has"_a = has_,
                           "chosen"_a = chosen_, "address"_a = address_, "time"_a = time_,
                           "blocks"_a = blocksOf("r", count_));
    }

private:
    const std::string count_, address_, time_, has_, chosen_;
};

// ---- looking

constexpr const char *kPools = R"(
SELECT p.name AS pool, p.kind, coalesce(r.given, v.given, 0) AS given, coalesce(r.remaining, v.remaining, 0) AS remaining,
       coalesce(r.retired, v.retired, 0) AS retired, p.block, coalesce(r.units, v.remaining / p.block, 0) AS units, p.low,
       (SELECT count(*) FROM pool_rows w WHERE w.pool = p.id AND w.unit IS NOT NULL AND w.bound >= $1) AS week
FROM pools p
LEFT JOIN (SELECT r.pool, sum(r.next - r.first) AS given, sum(CASE WHEN r.retired THEN 0 ELSE r.last - r.next + 1 END) AS remaining,
                  sum(CASE WHEN r.retired THEN r.last - r.next + 1 ELSE 0 END) AS retired,
                  sum(CASE WHEN r.retired OR r.next > r.last THEN 0 ELSE {blocks} END) AS units
           FROM ranges r JOIN pools q ON q.id = r.pool GROUP BY r.pool) AS r ON r.pool = p.id
LEFT JOIN (SELECT b.pool, count(b.unit) AS given, sum(CASE WHEN b.unit IS NULL AND NOT b.retired THEN 1 ELSE 0 END) AS remaining,
                  sum(CASE WHEN b.retired THEN 1 ELSE 0 END) AS retired
           FROM pool_rows b JOIN pools q ON q.id = b.pool WHERE q.kind = 'values' GROUP BY b.pool) AS v ON v.pool = p.id
ORDER BY p.name)";
enum : size_t { kName, kKind, kGiven, kRemaining, kRetired, kBlockSize, kUnits, kLowLimit, kWeek };

double realOf(const Value &value) { return value ? std::stod(*value) : 0; }

std::string warningOf(const std::vector<Value> &pool, double days) {
    const double units = realOf(pool[kUnits]), remaining = realOf(pool[kRemaining]);
    if (units == 0) return "empty";
    if (units < realOf(pool[kLowLimit])) return "low";
    if (days < 7) return fmt::format("{:.1f} days left", days);
    if (remaining * 10 < remaining + realOf(pool[kGiven])) return "less than 10 % left";
    return "";
}

}  // namespace

std::vector<std::string> addRange(Database &database, const std::string &pool, const std::string &first,
                                  const std::string &last, int low) {
    const Range range{addressOf(first), addressOf(last)};
    checkRange(range);
    Strings unusual;
    database.transact([&] {
        database.lock("pools");
        addRanges(database, openPool(database, pool, "addresses", low), {range}, unusual);
    });
    return unusual;
}

Imported importFile(Database &database, const std::string &name, const std::filesystem::path &path,
                    const std::string &kind, int low) {
    File file(path);
    const auto known = findPool(database, name);
    if (!known && kind.empty()) {
        throw Refusal(fmt::format("the pool \"{}\" is new: say --kind addresses or --kind values", name));
    }
    const std::string all = kind.empty() ? known->kind : kind;
    // Slow work is done before the transaction, which holds locks.
    const std::vector<Range> ranges = all == "addresses" ? file.convert(rangeOf) : std::vector<Range>();
    Rows values = all == "addresses" ? Rows() : valuesIn(file);
    Imported result{0, file.rows()[0].fields[0], {}};
    database.transact([&] {
        database.lock("pools");
        const Pool pool = openPool(database, name, all, low);
        result.added = ranges.empty() ? addValues(database, pool, file, std::move(values))
                                      : addRanges(database, pool, ranges, result.unusual);
    });
    return result;
}

int64_t retire(Database &database, const std::string &name, const std::string &first, const std::string &last,
               bool undo) {
    int64_t count = 0;
    if (undo && first.empty()) throw Refusal("say what can be given again: some of it may be retired for a reason");
    database.transact([&] {
        database.lock("pools");
        database.lock("pool " + name);
        const auto pool = findPool(database, name);
        if (!pool) throw Refusal(unknown(name));
        if (pool->kind == "addresses") {
            std::optional<Range> range;
            if (!first.empty()) range = Range{addressOf(first), addressOf(last.empty() ? first : last)};
            count = retireRange(database, *pool, range, undo);
        } else {
            if (!last.empty())
                throw Refusal(fmt::format("the pool \"{}\" is one of values, which have no range", name));
            count = retireValues(database, *pool, first, undo);
        }
        if (count > 0) return;
        throw Refusal(fmt::format("nothing of that is {} in the pool \"{}\"", undo ? "retired" : "left", name));
    });
    return count;
}

std::set<std::string> poolNames(const std::string &store) {
    std::set<std::string> names;
    const bool file = store.find("://") == std::string::npos;
    if (file && !std::filesystem::exists(store)) return names;
    const auto database = openStore(store, Database::Missing::kIsIgnored);
    database->giveUpAfter(kForNames);
    if (database->version() == 0) return names;
    for (const auto &row : database->ask("SELECT name FROM pools").rows) names.insert(*row[0]);
    return names;
}

Table listPools(Database &database) {
    using namespace fmt::literals;
    const std::string weekAgo = isoTime(WallClock::now() - std::chrono::hours(7 * 24));
    Table pools = database.ask(fmt::format(fmt::runtime(kPools), "blocks"_a = blocksOf("r", "q.block")), {weekAgo});
    pools.columns[kRemaining] = "left";
    pools.columns[kWeek] = "days";
    pools.columns.emplace_back("warning");
    pools.numbers.push_back(false);
    for (auto &row : pools.rows) {
        const double perDay = realOf(row[kWeek]) / 7;
        const double days = realOf(row[kUnits]) * realOf(row[kBlockSize]) / perDay;
        row[kWeek] = number(days);  // nothing when none was given
        row.push_back(text(warningOf(row, perDay > 0 ? days : 7)));
    }
    return pools;
}

Table listRanges(Database &database, const std::string &pool) {
    if (!findPool(database, pool)) throw Refusal(unknown(pool));
    Table ranges = database.ask(
        fmt::format("SELECT {} AS first, {} AS last, r.next - r.first AS given, r.last - r.next + 1 AS remaining,"
                    " r.retired FROM ranges r JOIN pools p ON p.id = r.pool WHERE p.name = $1 ORDER BY r.first",
                    addressIn(database, "r.first"), addressIn(database, "r.last")),
        {pool});
    ranges.columns[3] = "left";  // which SQL keeps for itself
    return ranges;
}

std::vector<std::string> poolWarnings(Database &database) {
    Strings warnings;
    for (const auto &row : listPools(database).rows) {
        if (!row.back()) continue;
        warnings.push_back(fmt::format("the pool \"{}\" has enough for {} more units ({}): add to it with \"qcstation"
                                       " pool add\" or \"pool import\"",
                                       *row[kName], *row[kUnits], *row.back()));
    }
    return warnings;
}

std::shared_ptr<Given> take(Database &database, const std::string &pool, const std::string &serial,
                            const std::string &run, int count) {
    if (count < 1 || count > kBlock) throw Refusal(fmt::format("a unit takes 1 to {} of a pool", kBlock));
    const Taking sql(database, count);
    auto given = std::make_shared<Given>(Given{pool, serial, count});
    const std::vector<Value> names = {pool, run}, bound = {pool, run, isoTime(WallClock::now())};
    database.lock("pool " + pool);
    database.queue(sql.fill(kHad), names, [given](const Table &had) { given->had = integer(had.rows[0][0]); });
    database.queue(sql.fill(kSplit), names);
    database.queue(sql.fill(kBind), bound);
    database.queue(sql.fill(kAdvance), names);
    database.queue(sql.fill(kBindValues), bound);
    database.queue(fmt::format("UPDATE pools SET block = {0} WHERE name = $1 AND block <> {0}", count), {pool});
    database.queue(sql.fill(kResult), names, [given](const Table &found) {
        for (const auto &row : found.rows) given->values.push_back(*row[0]);
    });
    database.queue(sql.fill(kLeft), {pool}, [given](const Table &left) {
        if (left.empty()) return;
        given->kind = *left.rows[0][0];
        given->left = integer(left.rows[0][2]);
        given->low = given->left < integer(left.rows[0][1]);
    });
    return given;
}

const std::vector<std::string> &valuesOf(const Given &given) {
    if (given.kind.empty()) throw Refusal(unknown(given.pool));
    if (given.kind == "values" && given.count > 1) {
        throw Refusal(fmt::format("the pool \"{}\" is one of values, which need not follow each other: what takes {} at"
                                  " a time needs a pool of addresses",
                                  given.pool, given.count));
    }
    if (given.values.size() == size_t(given.count)) return given.values;
    throw Refusal(fmt::format("the pool \"{}\" is empty{}: \"qcstation pool add\", or \"pool import\", fills it",
                              given.pool, given.count > 1 ? fmt::format(" of blocks of {}", given.count) : ""));
}

}  // namespace station
