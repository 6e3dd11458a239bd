// SQLite. A queued statement is done at once: there is no round trip to save.
#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "station/store/driver.h"

namespace station::sqlite {
namespace {

constexpr int kBusy = 3000;  // milliseconds that another process may keep the file to itself
constexpr int kInstructions =
    10000;                         // of SQLite's machine between two looks at the clock: some tenths of a millisecond
constexpr size_t kPrepared = 200;  // statements that are kept; the program has some fifty

// Codes for which the statement is not at fault: a retry may succeed later.
const std::set<int> kAway = {SQLITE_BUSY,     SQLITE_LOCKED,  SQLITE_NOMEM, SQLITE_READONLY,
                             SQLITE_IOERR,    SQLITE_CORRUPT, SQLITE_FULL,  SQLITE_CANTOPEN,
                             SQLITE_PROTOCOL, SQLITE_NOTADB,  SQLITE_AUTH,  SQLITE_PERM};

struct Close {
    void operator()(sqlite3 *connection) const { sqlite3_close(connection); }
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Close>;

// Returns the value of a cell; a number as number() writes it.
Value valueOf(sqlite3_stmt *row, int column) {
    const int type = sqlite3_column_type(row, column);
    if (type == SQLITE_NULL) return std::nullopt;
    if (type == SQLITE_FLOAT) return number(sqlite3_column_double(row, column));
    const auto *const text = static_cast<const char *>(sqlite3_column_blob(row, column));
    return std::string(text ? text : "", size_t(sqlite3_column_bytes(row, column)));
}

// Returns the numbers that the aggregate has collected so far.
std::vector<double> &collected(sqlite3_context *context) {
    auto **const numbers = static_cast<std::vector<double> **>(sqlite3_aggregate_context(context, sizeof(void *)));
    if (*numbers == nullptr) *numbers = new std::vector<double>;
    return **numbers;
}

void collect(sqlite3_context *context, int count, sqlite3_value **values) {
    std::vector<double> &numbers = collected(context);
    if (numbers.empty() && count > 1) numbers.push_back(sqlite3_value_double(values[1]));
    if (sqlite3_value_type(values[0]) != SQLITE_NULL) numbers.push_back(sqlite3_value_double(values[0]));
}

// nearest_rank(value, share): the percentile by nearest rank; share 0.5 is the median.
void nearestRank(sqlite3_context *context) {
    const std::unique_ptr<std::vector<double>> numbers(&collected(context));
    if (numbers->size() < 2) return sqlite3_result_null(context);
    const double share = numbers->front(), count = double(numbers->size() - 1);
    const auto rank = numbers->begin() + std::max(1L, std::lround(std::ceil(share * count)));
    std::nth_element(numbers->begin() + 1, rank, numbers->end());
    sqlite3_result_double(context, *rank);
}

// var_pop(value): the variance. Keeps the mean so far and the sum of squares about it, which
// loses no digits, as a plain sum of squares would.
struct Spread {
    double count, mean, squares;
};

Spread &spread(sqlite3_context *context) {  // all 0 at first
    return *static_cast<Spread *>(sqlite3_aggregate_context(context, sizeof(Spread)));
}

void addToSpread(sqlite3_context *context, int, sqlite3_value **values) {
    if (sqlite3_value_type(values[0]) == SQLITE_NULL) return;
    auto &[count, mean, squares] = spread(context);
    const double value = sqlite3_value_double(values[0]), distance = value - mean;
    mean += distance / ++count;
    squares += distance * (value - mean);
}

void variance(sqlite3_context *context) {
    const auto &[count, mean, squares] = spread(context);
    if (count > 0) sqlite3_result_double(context, squares / count);
}

class Sqlite : public Driver {
public:
    explicit Sqlite(const std::string &name);

    void queue(const std::string &sql, const std::vector<Value> &values, std::shared_ptr<Answer> answer) override;
    void rollBack() override {
        if (!sqlite3_get_autocommit(connection_.get())) queue("ROLLBACK", {}, {});
    }
    void onlyAsk(Milliseconds limit) override {
        Driver::onlyAsk(limit);
        queue("PRAGMA query_only = ON", {}, {});
    }

private:
    sqlite3_stmt *prepared(const std::string &sql);
    void step(sqlite3_stmt *statement, Answer &answer);
    void requireFile() const;
    [[noreturn]] void fail(int code) const;

    std::unique_ptr<sqlite3, Close> connection_;
    std::map<std::string, Statement> statements_;
    Clock::time_point deadline_ = Clock::time_point::max();
};

// Makes a new file with mode 0640, because it may contain keys; SQLite gives the files beside it the same mode. O_EXCL:
// an existing file must not be opened here, since closing it would drop the locks of this process's other connections.
Sqlite::Sqlite(const std::string &name) {
    const int file = ::open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0640);
    if (file >= 0) ::close(file);
    sqlite3 *connection = nullptr;
    const int code = sqlite3_open_v2(name.c_str(), &connection, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    connection_.reset(connection);
    if (code != SQLITE_OK) fail(code);
    sqlite3_extended_result_codes(connection, 1);
    sqlite3_busy_timeout(connection, kBusy);
    sqlite3_create_function(connection, "nearest_rank", 2, SQLITE_UTF8, nullptr, nullptr, collect, nearestRank);
    sqlite3_create_function(connection, "var_pop", 1, SQLITE_UTF8, nullptr, nullptr, addToSpread, variance);
    const auto mustEnd = [](void *driver) {
        const auto &self = *static_cast<const Sqlite *>(driver);
        return int(self.interrupted_ || self.deadline_ < Clock::now());
    };
    sqlite3_progress_handler(connection, kInstructions, mustEnd, this);
    Sqlite::queue("PRAGMA synchronous = FULL", {}, {});  // a commit is on the disk when it returns
    Sqlite::queue("PRAGMA foreign_keys = ON", {}, {});
    Sqlite::queue("PRAGMA cache_size = -32000", {}, {});  // kB
}

void Sqlite::fail(int code) const {
    const std::string words = connection_ ? sqlite3_errmsg(connection_.get()) : sqlite3_errstr(code);
    if (interrupted_ || (code & 0xFF) == SQLITE_INTERRUPT) throw tooSlow();
    if (kAway.contains(code & 0xFF)) throw StoreAway(words);
    throw StoreError(words);
}

sqlite3_stmt *Sqlite::prepared(const std::string &sql) {
    if (const auto known = statements_.find(sql); known != statements_.end()) return known->second.get();
    if (statements_.size() >= kPrepared) statements_.clear();
    sqlite3_stmt *statement = nullptr;
    const int code = sqlite3_prepare_v3(connection_.get(), sql.c_str(), int(sql.size() + 1), SQLITE_PREPARE_PERSISTENT,
                                        &statement, nullptr);
    if (code != SQLITE_OK) fail(code);
    return statements_.emplace(sql, statement).first->second.get();
}

// Throws StoreAway if the store's name is no longer that of the open file. SQLite would go on with the old file: what
// is recorded and given from now on would be missing in the store. A writer first empties the file's log, whose name
// stays behind: SQLite would apply it to any file that takes the place, and damage that.
void Sqlite::requireFile() const {
    int moved = 0;
    sqlite3_file_control(connection_.get(), nullptr, SQLITE_FCNTL_HAS_MOVED, &moved);
    if (moved == 0) return;
    if (question_.count() == 0)
        sqlite3_wal_checkpoint_v2(connection_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    throw StoreAway("its file was moved, removed or replaced");
}

void Sqlite::queue(const std::string &sql, const std::vector<Value> &values, std::shared_ptr<Answer> answer) {
    if (interrupted_) throw tooSlow();
    if (sqlite3_get_autocommit(connection_.get())) requireFile();
    if (question_.count() > 0) deadline_ = Clock::now() + question_;
    sqlite3_stmt *const statement = prepared(sql);
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> used(statement, sqlite3_reset);
    sqlite3_clear_bindings(statement);
    for (int i = 1; i <= sqlite3_bind_parameter_count(statement); ++i) {
        const size_t number = std::stoul(sqlite3_bind_parameter_name(statement, i) + 1);  // after the "$"
        const Value &value = values.at(number - 1);
        if (value) sqlite3_bind_text(statement, i, value->data(), int(value->size()), SQLITE_STATIC);
    }
    Answer nobody;
    step(statement, answer ? *answer : nobody);
    if (answer && answer->done) answer->done(std::move(answer->table));
}

// Steps through the rows. A column of a table has its declared type, a computed one the type of its values.
void Sqlite::step(sqlite3_stmt *statement, Answer &answer) {
    Table &table = answer.table;
    const int count = sqlite3_column_count(statement);
    for (int i = 0; i < count; ++i) {
        const char *const declared = sqlite3_column_decltype(statement, i);
        table.columns.emplace_back(sqlite3_column_name(statement, i));
        table.numbers.push_back(declared != nullptr && std::string(declared) != "TEXT");
    }
    int code = SQLITE_OK;
    while ((code = sqlite3_step(statement)) == SQLITE_ROW && !interrupted_) {
        std::vector<Value> cells;
        for (int i = 0; i < count; ++i) {
            const int type = sqlite3_column_type(statement, i);
            if (type == SQLITE_INTEGER || type == SQLITE_FLOAT) table.numbers[size_t(i)] = true;
            cells.push_back(valueOf(statement, i));
        }
        answer.add(std::move(cells));
    }
    if (code != SQLITE_DONE) fail(code);
    answer.changed = sqlite3_changes(connection_.get());
}

}  // namespace
}  // namespace station::sqlite

namespace station {

std::unique_ptr<Driver> openSqlite(const std::string &name) { return std::make_unique<sqlite::Sqlite>(name); }

}  // namespace station
