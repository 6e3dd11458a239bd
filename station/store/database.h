#pragma once
// A connection to the store's database: SQLite (a file's name) or PostgreSQL (postgresql://...).
//
// Values go in and come out as texts, which both databases take for every type. In the SQL they are $1, $2, ... The SQL
// is the same for both as far as it can be. Times come out as "2026-11-21T17:30:00.123Z", booleans as 1 and 0.
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
//                 transaction is in the way. The same may succeed later, over a new connection.
//     StoreError  itself: the database refuses the statement, and will always do so.
//     TooSlow     a question takes longer than onlyAsk() allows.
//     Refusal     the request does not fit what the store holds; thrown by the callers of this class.
//
// After StoreAway the connection may be dead. Begin again with a new Database.

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace station {

class Driver;

// What the database, or what it was asked for, does not allow, in words for the line engineer.
struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
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
    std::vector<bool> numbers = {};  // for each column: the database holds or computes numbers in it

    bool empty() const { return rows.empty(); }
};

// The database's name as it may be shown: a file's, or "postgresql://HOST/DATABASE" without user, password and
// parameters.
std::string shownName(const std::string &name);

Value text(const std::string &value);  // NULL for an empty one; always UTF-8 without NUL, which is all that both keep
Value number(std::integral auto value) { return std::to_string(value); }
Value number(double value);  // as short as it can be read back exactly; NULL for what is not finite

// Used by one thread at a time.
class Database {
public:
    // Of a store that is not there, or is of an older version: it is made or brought forward; that is an error; what is
    // there is taken as it is, which may be nothing.
    enum class Missing { kIsMade, kIsAnError, kIsIgnored };
    using EachRow = std::function<void(const Table &head, const std::vector<Value> &row)>;
    using Say = std::function<void(const std::string &)>;

    // Connects within seconds. Refuses what a newer program has made. A store that was of an older version cannot be
    // used by older programs any more, which `say` is told before.
    explicit Database(const std::string &name, Missing missing = Missing::kIsMade, const Say &say = {});
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // From now on a statement that a server does not answer within the limit ends with StoreAway.
    void giveUpAfter(std::chrono::milliseconds limit);
    // From now on nothing is changed over this connection, and a question that takes longer ends with TooSlow.
    void onlyAsk(std::chrono::milliseconds limit);

    Table ask(const std::string &sql, const std::vector<Value> &values = {});
    // The same in bounded memory: calls `row` for each row, and returns the table's head, without rows. When `row` is
    // called, the types of `head` are known as far as the rows so far tell. `row` must not use this connection.
    Table each(const std::string &sql, const std::vector<Value> &values, EachRow row);
    // Returns how many rows were changed.
    long long run(const std::string &sql, const std::vector<Value> &values = {});
    // Within transact(): the statement travels with those before and after it, and is done by the next ask(), each() or
    // run() or at the end, which throws its error; statements after a failed one are not done. `done` gets its answer;
    // it must neither throw nor use this connection. SQLite does it at once.
    void queue(const std::string &sql, const std::vector<Value> &values = {}, std::function<void(Table)> done = {});

    // Does everything that `work` does, or, when that throws, nothing of it. Returns after the commit.
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

    // In a transaction: waits for and then keeps, until its end, the lock of this name. SQLite lets one transaction
    // write at a time, and needs no more than that.
    void lock(const std::string &name);

    bool shared() const { return shared_; }  // PostgreSQL
    int version();                           // of the schema; 0 without tables

private:
    void begin();
    void commit();
    void rollBack() noexcept;
    void migrate(Missing missing, const Say &say);

    const bool shared_;
    std::unique_ptr<Driver> driver_;
};

// The same, with the store's name in what it throws.
std::unique_ptr<Database> openStore(const std::string &name, Database::Missing missing, const Database::Say &say = {});

}  // namespace station
