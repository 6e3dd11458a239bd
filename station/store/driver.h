#pragma once
// The interface between Database and the libraries of SQLite and PostgreSQL, with a class for each. The code above it
// differs between the two only in some SQL.

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "station/base/time.h"
#include "station/store/database.h"

namespace station {

// The result of a statement, filled when the statement is done.
struct Answer {
    Database::EachRow each = {};           // called for each row, whose cells then go nowhere else
    std::function<void(Table)> done = {};  // called at the end
    Table table = {};
    long long changed = 0;  // rows

    void add(std::vector<Value> row) {
        if (each) return each(table, row);
        table.rows.push_back(std::move(row));
    }
};

// giveUpAfter(), onlyAsk() and interrupt() are as in Database.
class Driver {
public:
    virtual ~Driver() = default;
    // Does the statement now or when finish() is called. `answer` may be null.
    virtual void queue(const std::string &sql, const std::vector<Value> &values, std::shared_ptr<Answer> answer) = 0;
    // Returns when all queued statements are done. Throws the first error; statements queued after it are not done.
    virtual void finish() {}
    // Drops queued statements, and ends the transaction if there is one. A statement in progress may still be done, but
    // nobody gets its answer.
    virtual void rollBack() = 0;
    virtual void giveUpAfter(Milliseconds) {}
    virtual void onlyAsk(Milliseconds limit) { question_ = limit; }
    virtual void interrupt() { interrupted_ = true; }

protected:
    // Returns what a question throws that has no answer.
    TooSlow tooSlow() const {
        if (interrupted_) return TooSlow("the question was broken off");
        return TooSlow(fmt::format("no answer within {} seconds", question_.count() / 1000));
    }

    Milliseconds question_{0};  // limit of a question; 0: none
    std::atomic<bool> interrupted_ = false;
};

// Connect to a file, which is made if it is missing, or to postgresql://... Throw StoreError or StoreAway.
std::unique_ptr<Driver> openSqlite(const std::string &name);
std::unique_ptr<Driver> openPostgresql(const std::string &name);

// Returns "postgresql://HOST/DATABASE", without user, password and other parameters.
std::string shownPostgresql(const std::string &name);

}  // namespace station
