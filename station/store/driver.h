#pragma once
// The interface of Database to the library of SQLite or PostgreSQL, with a class for each. The code above differs
// between the two in its SQL alone.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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

class Driver {
public:
    virtual ~Driver() = default;
    // Does the statement now, or when finish() is called. `answer` may be null.
    virtual void queue(const std::string &sql, const std::vector<Value> &values, std::shared_ptr<Answer> answer) = 0;
    // Returns when all that was queued is done. Throws the first error; what was queued after it is not done.
    virtual void finish() = 0;
    // Forgets what was queued, and ends the transaction if there is one. What has begun may be done, without an answer.
    virtual void rollBack() = 0;
    virtual void giveUpAfter(std::chrono::milliseconds limit) = 0;
    virtual void onlyAsk(std::chrono::milliseconds limit) = 0;
};

// `name`: a file, which is made if it is missing; postgresql://...
std::unique_ptr<Driver> openSqlite(const std::string &name);
std::unique_ptr<Driver> openPostgresql(const std::string &name);

// "postgresql://HOST/DATABASE": nothing of a user, a password or another parameter.
std::string shownPostgresql(const std::string &name);

}  // namespace station
