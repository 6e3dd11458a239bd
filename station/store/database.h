#pragma once
// A connection to the store's database: SQLite (a file's name) or PostgreSQL (postgresql://...).
//
// Values go in and come out as texts, which both databases accept for every type. In the SQL they are $1, $2, ... Most
// SQL is the same for both. Times come out as "2026-11-21T17:30:00.123Z", booleans as 1 and 0.
//
//     Database database("postgresql:///line");
//     const Table found = database.ask("SELECT id, seen FROM stations WHERE name = $1", {"left"});
//     database.transact([&] {
//         for (const std::string &unit : units) database.queue("UPDATE units SET product = $2 WHERE serial = $1",
//                                                              {unit, text(product)});
//     });  // one round trip
//
// Every call throws StoreError, or one of the types derived from it:
//
//     StoreAway   the database cannot do it now: it is unreachable, locked, full or out of resources, or another
//                 transaction is in the way. A retry may succeed later, over a new connection.
//     StoreError  itself: the database refuses the statement, and always will.
//     TooSlow     a query takes longer than onlyAsk() allows, or was interrupted.
//     Refusal     the request does not fit the content of the store; thrown by callers of this class.
//
// After StoreAway the connection may be dead. Begin again with a new Database.

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "station/run/records.h"

namespace station {

class Driver;

// Says what the database does not allow, in words for the line engineer.
struct StoreError : RecordsError {
    using RecordsError::RecordsError;
};
struct StoreAway : StoreError {
    using StoreError::StoreError;
};
struct TooSlow : StoreError {
    using StoreError::StoreError;
};
struct Refusal : StoreError {
    using StoreError::StoreError;
};

using Value = std::optional<std::string>;  // nothing: NULL

struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<Value>> rows;
    std::vector<bool> numbers = {};  // for each column: it has numbers; texts where this is too short

    bool empty() const { return rows.empty(); }
    bool isNumber(size_t column) const { return column < numbers.size() && numbers[column]; }
};

// Returns the database's name as it may be shown: the file's, or "postgresql://HOST/DATABASE" without user, password
// and parameters.
std::string shownName(const std::string &name);

// Return values for statements. An empty text becomes NULL; other texts become UTF-8 without NUL, because both
// databases keep only that. A double gets as few digits as can be read back exactly; one that is not finite becomes
// NULL.
Value text(const std::string &value);
Value number(std::integral auto value) { return std::to_string(value); }
Value number(double value);
// Returns the whole number that a cell holds; 0 for NULL. Throws StoreError for another value, which this program has
// not written.
int64_t integer(const Value &cell);

// Must be used by one thread at a time.
class Database {
public:
    // The version of the schema. Add a version for each change, and never edit one that was released: a factory's
    // database is upgraded by the versions that it does not have yet.
    static constexpr int kNewest = 6;

    // A store that does not exist or has an older version is made or upgraded; is an error; or is taken as it is,
    // possibly without tables.
    enum class Missing { kIsMade, kIsAnError, kIsIgnored };
    using EachRow = std::function<void(const Table &head, const std::vector<Value> &row)>;
    using Say = std::function<void(const std::string &)>;

    // Connects within seconds. Refuses a store of a newer version. Calls `say` before it upgrades a store, which older
    // programs can then no longer use.
    explicit Database(const std::string &name, Missing missing = Missing::kIsMade, const Say &say = {});
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // Sets a timeout: a statement that a server does not answer in time throws StoreAway.
    void giveUpAfter(std::chrono::milliseconds limit);
    // Makes the connection read-only, and sets a timeout: a query that takes longer throws TooSlow.
    void onlyAsk(std::chrono::milliseconds limit);

    // Runs a query and returns its rows.
    Table ask(const std::string &sql, const std::vector<Value> &values = {});
    // The same in bounded memory: calls `row` for each row, and returns the table's head without rows. In `row`, the
    // types in `head` are known as far as the rows so far show them. `row` must not use this connection.
    Table each(const std::string &sql, const std::vector<Value> &values, EachRow row);
    // Runs a statement. Returns how many rows it changed.
    long long run(const std::string &sql, const std::vector<Value> &values = {});
    // Queues a statement within transact(). It travels together with its neighbours, and is done by the next ask(),
    // each() or run() or at the end of the transaction; that call throws its error. Statements after a failed one are
    // not done. `done` gets the answer; it must neither throw nor use this connection. SQLite does it at once.
    void queue(const std::string &sql, const std::vector<Value> &values = {}, std::function<void(Table)> done = {});

    // Calls `work` within a transaction and commits it. When `work` throws, nothing of it is done.
    template <typename Work>
    void transact(Work &&work) {
        begin();
        try {
            work();
            commit();
        } catch (...) {
            rollBack();
            throw;
        }
    }

    // Queues taking the locks of these names, in their order, and keeps them until the transaction ends. Needed only by
    // PostgreSQL: in SQLite only one transaction writes at a time anyway.
    void lock(const std::set<std::string> &names);

    // Returns SQL for a time that lies so long before another one: a column, or by default the present by the store's
    // own clock, since the clocks of stations differ.
    std::string timeBefore(std::chrono::seconds ago, const std::string &column = {}) const;

    // Ends the query that another thread has begun, and every later one, with TooSlow. Any thread may call this.
    void interrupt();

    bool shared() const { return shared_; }  // true for PostgreSQL
    int version();                           // version of the schema; 0 without tables

private:
    void begin();
    void commit();
    void rollBack() noexcept;
    void migrate(Missing missing, const Say &say);

    const bool shared_;
    std::unique_ptr<Driver> driver_;
};

// Opens a store. The same as the constructor, with the store's name in every error.
std::unique_ptr<Database> openStore(const std::string &name, Database::Missing missing, const Database::Say &say = {});

}  // namespace station
