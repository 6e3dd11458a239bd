#include "station/store/database.h"

#include <fmt/format.h>

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "station/base/text.h"
#include "station/run/record_json.h"
#include "station/store/driver.h"
#include "station/store/sql.h"

namespace station {
namespace {

bool isShared(const std::string &name) { return name.starts_with("postgresql://") || name.starts_with("postgres://"); }

std::unique_ptr<Driver> connect(const std::string &name, Database::Missing missing) {
    if (isShared(name)) return openPostgresql(name);
    if (name.find("://") != std::string::npos) throw StoreError("neither a file nor postgresql://...");
    if (missing == Database::Missing::kIsAnError && !std::filesystem::exists(name)) {
        throw StoreError("there is no such file; \"qcstation store upgrade\" makes a new, empty one");
    }
    const auto folder = std::filesystem::path(name).parent_path();
    std::error_code denied;
    if (!folder.empty() && !std::filesystem::exists(folder, denied) && !denied) {
        throw StoreAway(fmt::format("there is no folder {}: make it", folder.string()));
    }
    return openSqlite(name);
}

}  // namespace

std::string shownName(const std::string &name) {
    if (isShared(name)) return shownPostgresql(name);
    return name.substr(0, name.find("://"));  // of another kind: perhaps a password follows
}

Value text(const std::string &value) {
    if (value.empty()) return std::nullopt;
    return replaced(asUtf8(value), '\0', "\uFFFD");
}

Value number(double value) { return std::isfinite(value) ? Value(fmt::format("{}", value)) : std::nullopt; }

int64_t integer(const Value &cell) {
    const auto number = wholeNumber<int64_t>(cell.value_or("0"));
    if (!number) throw StoreError(fmt::format("the store has \"{}\" in the place of a whole number", *cell));
    return *number;
}

Database::Database(const std::string &name, Missing missing, const Say &say)
    : shared_(isShared(name)), driver_(connect(name, missing)) {
    if (missing == Missing::kIsIgnored) return;
    if (!shared_) ask("PRAGMA journal_mode = WAL");  // readers keep no writer waiting; the file remembers it
    migrate(missing, say);
}

Database::~Database() = default;

std::unique_ptr<Database> openStore(const std::string &name, Database::Missing missing, const Database::Say &say) try {
    return std::make_unique<Database>(name, missing, say);
} catch (const StoreAway &error) {
    throw StoreAway(fmt::format("the store {}: {}", shownName(name), error.what()));
} catch (const StoreError &error) {
    throw StoreError(fmt::format("the store {}: {}", shownName(name), error.what()));
}

void Database::giveUpAfter(std::chrono::milliseconds limit) { driver_->giveUpAfter(limit); }

void Database::onlyAsk(std::chrono::milliseconds limit) { driver_->onlyAsk(limit); }

void Database::interrupt() { driver_->interrupt(); }

Table Database::ask(const std::string &sql, const std::vector<Value> &values) { return each(sql, values, {}); }

Table Database::each(const std::string &sql, const std::vector<Value> &values, EachRow row) {
    const auto answer = std::make_shared<Answer>(Answer{.each = std::move(row)});
    driver_->queue(sql, values, answer);
    driver_->finish();
    return std::move(answer->table);
}

long long Database::run(const std::string &sql, const std::vector<Value> &values) {
    const auto answer = std::make_shared<Answer>();
    driver_->queue(sql, values, answer);
    driver_->finish();
    return answer->changed;
}

void Database::queue(const std::string &sql, const std::vector<Value> &values, std::function<void(Table)> done) {
    driver_->queue(sql, values, done ? std::make_shared<Answer>(Answer{.done = std::move(done)}) : nullptr);
}

// SQLite: IMMEDIATE takes the write lock at once. A transaction that begins with a read may fail to get it later.
void Database::begin() { queue(shared_ ? "BEGIN ISOLATION LEVEL READ COMMITTED" : "BEGIN IMMEDIATE"); }

void Database::commit() { run("COMMIT"); }

void Database::rollBack() noexcept {
    try {
        driver_->rollBack();
    } catch (...) {  // the connection is dead, and with it the transaction
    }
}

void Database::lock(const std::set<std::string> &names) {
    if (!shared_) return;
    queue("SELECT pg_advisory_xact_lock(hashtextextended(json_array_elements_text($1), 0))", {dump(Json(names))});
}

std::string Database::timeBefore(std::chrono::seconds ago, const std::string &column) const {
    if (shared_) {
        return fmt::format("({} - interval '{} seconds')", column.empty() ? "CURRENT_TIMESTAMP" : column, ago.count());
    }
    return fmt::format("strftime('%Y-%m-%dT%H:%M:%fZ', {}, '-{} seconds')", column.empty() ? "'now'" : column,
                       ago.count());
}

int Database::version() {
    const Table known = ask(shared_ ? "SELECT tablename FROM pg_tables WHERE tablename = 'schema_version'"
                                      " AND schemaname = current_schema()"
                                    : "SELECT name FROM sqlite_master WHERE name = 'schema_version'");
    return known.empty() ? 0 : int(integer(ask("SELECT max(version) FROM schema_version").rows[0][0]));
}

// SQLite drops a table that others refer to only while foreign keys are off. They can only be switched outside of a
// transaction.
void Database::migrate(Missing missing, const Say &say) {
    const int found = version();
    if (found > kNewest) throw StoreError("made by a newer version of this program, which is needed to use it");
    if (found == kNewest) return;
    const std::string change = fmt::format("version {}, and this program needs version {}", found, kNewest);
    if (missing == Missing::kIsAnError) {
        throw StoreError(found == 0 ? "there are no tables; \"qcstation store upgrade\" makes new, empty ones"
                                    : fmt::format("it is of {}: stop all stations that use it, then run"
                                                  " \"qcstation store upgrade\"",
                                                  change));
    }
    if (say && found > 0)
        say(fmt::format("the store is of {}: it is brought forward, and older programs are refused", change));
    if (!shared_) run("PRAGMA foreign_keys = OFF");
    transact([&] {
        lock({"schema"});
        int now = version();  // another process may have done it meanwhile
        if (now == 0) run("CREATE TABLE IF NOT EXISTS schema_version (version BIGINT PRIMARY KEY)");
        while (now++ < kNewest) {
            for (const std::string &statement : statementsOf(shared_, fmt::format("schema_{}", now))) run(statement);
            run("INSERT INTO schema_version (version) VALUES ($1)", {number(now)});
        }
    });
    if (!shared_) run("PRAGMA foreign_keys = ON");
}

}  // namespace station
