#pragma once
// A connection to the store's database: SQLite (a file's name) or PostgreSQL (postgresql://...). Values go in and come
// out as texts, which both take for every type; in the SQL, which is the same for both, they are $1, $2, ...

#include <chrono>
#include <concepts>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace soci {
class session;
}

namespace station {

class Call;
class Cutter;

// What the database, or what it was asked for, does not allow, in words for the line engineer.
struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The store works; it is what was asked for that does not go.
struct Refusal : StoreError {
    using StoreError::StoreError;
};

// The question takes longer than it may.
struct TooSlow : StoreError {
    using StoreError::StoreError;
};

using Value = std::optional<std::string>;  // nothing: NULL

struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<Value>> rows;

    bool empty() const { return rows.empty(); }
};

// The database's name as it may be shown: without a password.
std::string shownName(const std::string &name);

Value text(const std::string &value);  // NULL for an empty one; always UTF-8 without NUL, which is all that both keep
Value number(std::integral auto value) { return std::to_string(value); }
Value number(double value);  // as short as it can be read back exactly; NULL for what is not finite

// Used by one thread at a time. Every call throws StoreError; after that the connection may be dead.
class Database {
public:
    enum class Missing { kIsMade, kIsAnError };

    // Connects, and brings the schema up to date. What a newer program has made is refused. `missing`: a file that is
    // not there.
    explicit Database(const std::string &name, Missing missing = Missing::kIsMade);
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // From now on a server that does not answer a statement within the limit, as one that hangs, loses the connection.
    void giveUpAfter(std::chrono::seconds limit);
    // From now on nothing is changed over this connection, and a question that takes longer ends with TooSlow.
    void onlyAsk(std::chrono::milliseconds limit);

    Table ask(const std::string &sql, const std::vector<Value> &values = {});
    // Returns how many rows were changed.
    long long run(const std::string &sql, const std::vector<Value> &values = {});

    // Everything that `work` does, or, when it throws, nothing of it.
    template <typename Work>
    void transact(Work &&work) {
        begin();
        try {
            work();
            run("COMMIT");
        } catch (...) {
            rollBack();
            throw;
        }
    }

    // In a transaction, until its end: nobody else gives, adds or retires what a pool holds.
    void lockPools();

private:
    void open(const std::string &name, Missing missing);
    void begin();
    void rollBack() noexcept;
    void lock(int what);
    int version();
    void migrate();
    [[noreturn]] void complain(const std::string &words) const;

    std::unique_ptr<soci::session> session_;
    std::map<std::string, std::unique_ptr<Call>> calls_;  // prepared ones by their SQL
    bool shared_;                                         // PostgreSQL
    std::unique_ptr<Cutter> cutter_;                      // null: the server has all the time it wants
    std::chrono::milliseconds limit_{0};                  // of a question; 0: none
    std::chrono::steady_clock::time_point deadline_;
};

// The same, with the store's name in what it throws.
std::unique_ptr<Database> openStore(const std::string &name, Database::Missing missing = Database::Missing::kIsMade);

}  // namespace station
