#include "station/store/store_records.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "station/base/descriptor.h"
#include "station/base/text.h"
#include "station/store/mend.h"
#include "station/store/pool.h"
#include "station/store/save.h"
#include "station/store/sql.h"

namespace station {
namespace {

using Seconds = std::chrono::seconds;

constexpr Seconds kHeartbeat{5};     // between two signs of life while a board is in work
constexpr Seconds kGone{24 * 3600};  // a station that was not seen for so long runs nothing any more
constexpr Seconds kGhost{15};        // after which a server has noticed that a connection is dead
constexpr Seconds kPoolsLook{3600};  // between two looks at what is left of the pools, which count a week of units

// Locks the key (16 hexadecimal digits) until the connection ends. Returns false when another connection has the lock.
// SQLite needs none: its processes are on one machine, where the spool's own lock decides.
bool holdsKey(Database &database, const std::string &key) {
    if (!database.shared()) return true;
    const Value number = station::number(static_cast<int64_t>(std::stoull(key, nullptr, 16)));
    return !database.ask("SELECT 1 WHERE pg_try_advisory_lock(CAST($1 AS BIGINT))", {number}).empty();
}

std::shared_ptr<Change> changeOf(const std::shared_ptr<const RunRecord> &run, Change::What what = Change::kRun) {
    auto change = std::make_shared<Change>();
    change->run = run;
    change->what = what;
    return change;
}

}  // namespace

StoreRecords::StoreRecords(const std::string &store, const std::filesystem::path &spool,
                           std::unique_ptr<FileRecords> files)
    : machine_(hostName()),
      files_(std::move(files)),
      spool_(spool, sayer()),
      writer_(
          store, [this](Database &database, bool fresh, bool working) { greet(database, fresh, working); }, sayer()) {}

void StoreRecords::tell(const std::function<void(const std::string &)> &trouble) {
    const Lock lock(mutex_);
    trouble_ = trouble;
    if (trouble_) std::for_each(unsaid_.begin(), unsaid_.end(), trouble_);
    if (trouble_) unsaid_.clear();
}

void StoreRecords::say(const std::string &trouble) {
    const Lock lock(mutex_);
    if (!trouble_) return unsaid_.push_back(trouble);
    trouble_(trouble);
}

// ---- in the writer's thread

void StoreRecords::greet(Database &database, bool fresh, bool working) {
    if (fresh) held_.clear();
    holdKeys(database);
    if (!mended_) {
        mend(database, spool_, files_.get(), sayer());
        mended_ = true;
    }
    if (fresh) introduce(database);
    for (const RunRecord &run : spool_.kept()) writeLate(database, spool_, run);
    retryUnkept([&](const RunRecord &run) { writeLate(database, spool_, run); });
    if (working) heartbeat(database);
    warnOfPools(database);
}

// Claims the spool's keys in the store. A machine with a copy of the spool has the same keys, but only one of the two
// may settle the runs that they left.
void StoreRecords::holdKeys(Database &database) {
    firstTry_ = std::min(firstTry_, Clock::now());
    for (const std::string &key : spool_.keys()) {
        if (held_.contains(key)) continue;
        if (holdsKey(database, key)) held_.insert(key);
        if (held_.contains(key) || mended_) continue;
        if (Clock::now() < firstTry_ + kGhost)
            throw StoreAway("an earlier connection of this station has not ended yet");
        spool_.surrender(key);
        say(fmt::format("another station uses the key {} of this station's spool, which is a copy of its own: this one"
                        " goes on as {}. Give each station a spool of its own",
                        key, spool_.key()));
    }
}

void StoreRecords::introduce(Database &database) {
    database.run("INSERT INTO stations (key, name, seen) VALUES ($1, $2, " + database.timeBefore(Seconds(0)) +
                     ") ON CONFLICT (key) DO UPDATE SET name = excluded.name, seen = excluded.seen",
                 {spool_.key(), text(machine_)});
    database.run("UPDATE runs SET verdict = 'interrupted' WHERE verdict = 'running'"
                 " AND station IN (SELECT s.id FROM stations s WHERE NOT " +
                 wasSeen(database, kGone) + ")");
}

// Renews the station's `seen`. A line without a board in work writes nothing.
void StoreRecords::heartbeat(Database &database) {
    if (Clock::now() < lastSeen_ + kHeartbeat) return;
    database.run("UPDATE stations SET seen = " + database.timeBefore(Seconds(0)) + " WHERE key = $1", {spool_.key()});
    lastSeen_ = Clock::now();
}

// Reads the pools outside of a transaction, which would make other stations wait for them.
void StoreRecords::warnOfPools(Database &database) {
    if (Clock::now() < nextLook_) return;
    nextLook_ = Clock::now() + kPoolsLook;
    for (const std::string &warning : poolWarnings(database)) say(warning);
}

// ---- in the threads of line and boards

std::string StoreRecords::away() {
    std::string why = retryUnkept([&](const RunRecord &run) { spool_.keep(run); });
    const std::string unwritten = files_ ? files_->away() : "";  // tries again, whatever else is away
    if (why.empty()) why = writer_.away();
    if (why.empty()) why = spool_.away();
    return why.empty() ? unwritten : why;
}

// Tries `take` with each end of a run that nothing has taken. Returns why one still fails; empty when none is left.
// Only one thread at a time has a record.
std::string StoreRecords::retryUnkept(const std::function<void(const RunRecord &)> &take) {
    std::vector<std::shared_ptr<const RunRecord>> unkept;
    {
        const Lock lock(mutex_);
        unkept.swap(unkept_);
    }
    std::string why;
    for (const auto &run : unkept) try {
            take(*run);
        } catch (const std::runtime_error &error) {
            why = fmt::format("the run {} is not recorded yet: {}", run->id, error.what());
            const Lock lock(mutex_);
            unkept_.push_back(run);
        }
    return why;
}

std::shared_ptr<const RunRecord> StoreRecords::mine(RunRecord run) const {
    run.station = {machine_, spool_.key()};
    return std::make_shared<const RunRecord>(std::move(run));
}

void StoreRecords::begins(const RunRecord &begun) {
    const auto run = mine(unfinished(begun));
    spool_.reserve(run->id);
    try {
        writer_.now(changeOf(run));
        if (files_) files_->begins(*run);
    } catch (const RecordsError &) {
        spool_.forget(run->id);
        const auto change = changeOf(run);
        change->inWork = false;
        writer_.later(change);
        throw;
    }
}

// Claims the unit for the run, and takes what it needs of a pool. Afterwards no other station can claim the unit.
std::shared_ptr<Change> StoreRecords::claim(const RunRecord &run, const Given &given) {
    auto change = changeOf(mine(unfinished(run)), Change::kClaim);
    change->given = given;
    writer_.now(change);
    return change;
}

std::optional<UnitHistory> StoreRecords::named(const RunRecord &run) try {
    if (!run.unit.empty()) return claim(run)->history;
    writer_.later(changeOf(mine(unfinished(run)), Change::kClaim));
    return std::nullopt;
} catch (const Refusal &) {
    throw;
} catch (const StoreError &) {  // away: neither the other stations nor its earlier runs are known
    return std::nullopt;
}

std::vector<std::string> StoreRecords::bind(const std::string &pool, const RunRecord &run, int count) {
    if (run.unit.empty()) throw RecordsError(fmt::format("\"{}\" is given to a unit, whose serial is not known", pool));
    if (count < 1 || count > kBlock) throw Refusal(fmt::format("a unit takes 1 to {} of a pool", kBlock));
    const auto change = claim(run, {pool, *text(run.unit), run.id, count});
    const Given &found = change->given;
    auto values = valuesOf(found);
    if (found.had > 0) {
        say(fmt::format(
            "the unit {} had {} addresses of the pool \"{}\", which are no block of {}: it has new ones now", run.unit,
            found.had, pool, count));
    }
    if (found.low && isNews(pool, found.left)) {
        say(fmt::format("the pool \"{}\" runs low: enough for {} more units", pool, found.left));
    }
    return values;
}

AddressOwner StoreRecords::ownerOf(const std::string &address, const RunRecord &run) {
    const auto found = std::make_shared<AddressOwner>();
    const auto change = changeOf(nullptr);
    change->ask = [=, unit = text(run.unit)](Database &database) {
        const Table owner = database.ask("SELECT serial FROM addresses WHERE address = $1", {address});
        found->unit = owner.empty() ? "" : *owner.rows[0][0];
        found->hasOthers = !database.ask("SELECT 1 FROM addresses WHERE serial = $1 LIMIT 1", {unit}).empty();
    };
    writer_.now(change);
    return *found;
}

// Returns true at the first warning about a pool, and each time what is left has halved since.
bool StoreRecords::isNews(const std::string &pool, int64_t left) {
    const Lock lock(mutex_);
    const auto [told, first] = told_.emplace(pool, left);
    if (!first && left > told->second / 2) return false;
    told->second = left;
    return true;
}

void StoreRecords::stepEnded(const RunRecord &ended, size_t step) {
    const auto run = mine(unfinished(ended));
    if (files_) files_->stepEnded(*run, step);
    const auto change = changeOf(run, Change::kSteps);
    change->steps = step + 1;
    writer_.later(change);
}

void StoreRecords::ends(const RunRecord &ended) {
    const auto run = mine(ended);
    std::string why;
    bool filed = false;
    try {
        if (files_) files_->ends(*run);
        filed = files_ != nullptr;
    } catch (const RecordsError &error) {
        why = error.what();
    }
    const bool kept = persist(run, why);
    if (!kept) {
        const Lock lock(mutex_);
        unkept_.push_back(run);
    }
    if (!kept && !filed) throw RecordsError(why);
    if (files_ && !filed) say(fmt::format("the result of the run {} is not written yet: {}", run->id, why));
}

// Writes the end of a run to the store, otherwise to the spool. Returns false and adds the reasons when both fail.
bool StoreRecords::persist(const std::shared_ptr<const RunRecord> &run, std::string &why) {
    std::string away, refusal;
    const auto change = changeOf(run);
    change->inWork = false;
    change->steps = run->steps.size();
    try {
        writer_.now(change);
        spool_.forget(run->id);
        return true;
    } catch (const StoreAway &error) {
        away = error.what();
    } catch (const StoreError &error) {
        refusal = error.what();
    }
    try {
        refusal.empty() ? spool_.keep(*run) : spool_.refuse(*run, refusal);
        return true;
    } catch (const RecordsError &error) {
        why += fmt::format("{}{}; and {}", why.empty() ? "" : "; and ", away + refusal, error.what());
        return false;
    }
}

std::filesystem::path defaultSpool(const std::string &store) {
    return store.find("://") == std::string::npos ? store + "-spool" : "qcstation-spool";
}

}  // namespace station
