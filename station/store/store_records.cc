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
constexpr Seconds kSilence{30};      // of a living process with a board in work, at most
constexpr Seconds kGone{24 * 3600};  // a station that was not seen for so long runs nothing any more
constexpr Seconds kGhost{15};        // after which a server has noticed that a connection is dead
constexpr Seconds kPoolsLook{3600};  // between two looks at what is left of the pools, which count a week of units

// Returns an SQL condition: the station s was seen within the last `ago` seconds.
std::string wasSeen(const Database &database, Seconds ago) { return "s.seen > " + database.timeBefore(ago); }

// Returns the history from the runs that count, the last one first.
UnitHistory historyOf(const Table &runs, const RunRecord &run) {
    UnitHistory history;
    for (const auto &row : runs.rows) {
        if (history.where.empty()) {
            history.when = parseIsoTime(row[1].value_or("")).value_or(run.start);
            history.where = nameOf(Place{wholeNumber<int>(*row[2]).value_or(0), *row[3]});
            if (*row[4] != run.station.name) history.where += " of the station " + *row[4];
        }
        if (row[0] == "passed") break;
        ++history.failed;
    }
    return history;
}

// Locks the key (16 hexadecimal digits) until the connection ends. Returns false when another connection has the lock.
// SQLite needs none: its processes are on one machine, where the spool's own lock decides.
bool holdsKey(Database &database, const std::string &key) {
    if (!database.shared()) return true;
    const Value number = station::number(static_cast<int64_t>(std::stoull(key, nullptr, 16)));
    return !database.ask("SELECT 1 WHERE pg_try_advisory_lock(CAST($1 AS BIGINT))", {number}).empty();
}

std::string productOf(const RunRecord &run) {
    const auto product = run.variables.find("product");
    return product == run.variables.end() ? "" : product->second;
}

// Throws Refusal when another process that was active lately has the unit in work, or when the serial number belongs to
// a unit of another product: the label may be the wrong one.
void refuseTaken(Database &database, const RunRecord &run) {
    const std::string product = productOf(run);  // an empty one becomes NULL, from which no product differs
    const Table found =
        database.ask("SELECT r.place_name, s.name, NULL FROM runs r JOIN units u ON u.id = r.unit JOIN stations s ON "
                     "s.id = r.station"
                     " WHERE u.serial = $1 AND r.verdict = 'running' AND s.key <> $2 AND " +
                         wasSeen(database, kSilence) +
                         " UNION ALL SELECT NULL, NULL, product FROM units WHERE serial = $1 AND product <> $3",
                     {text(run.unit), run.station.key, text(product)});
    for (const auto &row : found.rows) {
        if (row[0]) {
            throw Refusal(
                fmt::format("the unit {} is in work at place {} of the station {}", run.unit, *row[0], *row[1]));
        }
        throw Refusal(fmt::format("the serial number {} is that of a unit of the product {}, and this one is a {}:"
                                  " check the label. Products that count alike need the product in their serial"
                                  " numbers",
                                  run.unit, *row[2], product));
    }
}

}  // namespace

StoreRecords::StoreRecords(const std::string &store, const std::filesystem::path &spool,
                           std::unique_ptr<FileRecords> files)
    : machine_(hostName()),
      files_(std::move(files)),
      spool_(spool, sayer()),
      writer_(
          store, [this](Database &database, bool fresh) { greet(database, fresh); }, sayer()) {}

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

void StoreRecords::greet(Database &database, bool fresh) {
    if (fresh) held_.clear();
    holdKeys(database);
    if (!mended_) {
        mend(database, spool_, files_.get(), sayer());
        mended_ = true;
    }
    if (fresh) introduce(database);
    for (const RunRecord &run : spool_.kept()) writeLate(database, spool_, run);
    retryUnkept([&](const RunRecord &run) { writeLate(database, spool_, run); });
    heartbeat(database);
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
    {
        const Lock lock(mutex_);
        if (inWork_.empty() || Clock::now() < lastSeen_ + kHeartbeat) return;
    }
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
    std::vector<Shared> unkept;
    {
        const Lock lock(mutex_);
        unkept.swap(unkept_);
    }
    std::string why;
    for (const Shared &run : unkept) try {
            take(*run);
        } catch (const std::runtime_error &error) {
            why = fmt::format("the run {} is not recorded yet: {}", run->id, error.what());
            const Lock lock(mutex_);
            unkept_.push_back(run);
        }
    return why;
}

StoreRecords::Shared StoreRecords::mine(RunRecord run) const {
    run.station = {machine_, spool_.key()};
    return std::make_shared<const RunRecord>(std::move(run));
}

std::shared_ptr<StoreRecords::Course> StoreRecords::courseOf(const RunRecord &run) {
    const Lock lock(mutex_);
    const auto course = inWork_.find(run.id);
    return course == inWork_.end() ? std::make_shared<Course>() : course->second;
}

void StoreRecords::begins(const RunRecord &begun) {
    const Shared run = mine(unfinished(begun));
    spool_.reserve(run->id);
    {
        const Lock lock(mutex_);
        inWork_[run->id] = std::make_shared<Course>();
    }
    try {
        writer_.now({[run](Database &store) { save(store, *run, true); }});
        if (files_) files_->begins(*run);
    } catch (const RecordsError &) {
        forget(run->id);
        // If only the answer was lost, the run is in the store all the same.
        writer_.later({[run](Database &store) {
            store.run("UPDATE runs SET verdict = 'interrupted' WHERE run = $1 AND verdict = 'running'", {run->id});
        }});
        throw;
    }
}

void StoreRecords::forget(const std::string &id) {
    spool_.forget(id);
    const Lock lock(mutex_);
    inWork_.erase(id);
}

// Claims the unit for the run and calls `take`, in one transaction. Afterwards no other station can claim the unit.
void StoreRecords::asUnit(const RunRecord &named, const std::string &pool,
                          const std::function<void(Database &, const RunRecord &)> &take) {
    const Shared run = mine(unfinished(named));
    const auto course = courseOf(named);
    const std::string product = productOf(named);
    const bool known = course->unit == named.unit && course->product == product;
    const auto write = [=](Database &store) {
        store.lock("unit " + *text(run->unit));
        refuseTaken(store, *run);  // another may have taken it while this one was away
        if (!known) save(store, *run, true, run->steps.size());
        take(store, *run);
    };
    writer_.now({write, {}, pool});
    course->unit = run->unit;
    course->product = product;
}

// Takes the unit from the run in the store, where other stations see it in work.
void StoreRecords::release(const RunRecord &named) {
    if (std::exchange(courseOf(named)->unit, "").empty()) return;
    const Shared run = mine(unfinished(named));
    writer_.later({[run](Database &store) { save(store, *run, true, run->steps.size()); }});
}

std::optional<UnitHistory> StoreRecords::named(const RunRecord &run) try {
    if (run.unit.empty()) {
        release(run);
        return std::nullopt;
    }
    const auto history = std::make_shared<UnitHistory>();
    asUnit(run, "*", [=](Database &database, const RunRecord &known) {
        database.queue(sqlOf(database.shared(), "runs_of_unit"), {text(known.unit), text(known.plan)},
                       [history, known](const Table &runs) { *history = historyOf(runs, known); });
    });
    return *history;
} catch (const Refusal &) {
    throw;
} catch (const StoreError &) {  // away: neither the other stations nor its earlier runs are known
    return std::nullopt;
}

std::vector<std::string> StoreRecords::bind(const std::string &pool, const RunRecord &run, int count) {
    if (run.unit.empty()) throw RecordsError(fmt::format("\"{}\" is given to a unit, whose serial is not known", pool));
    const auto given = std::make_shared<std::shared_ptr<Given>>();
    asUnit(run, pool, [=](Database &database, const RunRecord &taker) {
        *given = take(database, pool, *text(taker.unit), taker.id, count);
    });
    const Given &found = **given;
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
    writer_.now({[=, unit = text(run.unit)](Database &database) {
        const Table owner = database.ask("SELECT serial FROM addresses WHERE address = $1", {address});
        found->unit = owner.empty() ? "" : *owner.rows[0][0];
        found->hasOthers = !database.ask("SELECT 1 FROM addresses WHERE serial = $1 LIMIT 1", {unit}).empty();
    }});
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
    const Shared run = mine(unfinished(ended));
    const auto course = courseOf(ended);
    if (files_) files_->stepEnded(*run, step);
    {
        const Lock lock(mutex_);
        behind_[run->id] = {run, course, step + 1};
    }
    const auto taken = std::make_shared<std::map<std::string, Behind>>();  // what all boards have reported until then
    const auto write = [this, taken](Database &store) {
        std::vector<StepsOf> steps;
        {
            const Lock lock(mutex_);
            taken->merge(behind_);
        }
        for (const auto &[id, behind] : *taken) steps.push_back({*behind.run, behind.course->steps});
        saveSteps(store, steps);
    };
    writer_.later({write, [taken] {
                       for (const auto &[id, behind] : *taken) behind.course->steps = behind.steps;
                   }});
}

void StoreRecords::ends(const RunRecord &ended) {
    const Shared run = mine(ended);
    std::string why;
    bool filed = false;
    try {
        if (files_) files_->ends(*run);
        filed = files_ != nullptr;
    } catch (const RecordsError &error) {
        why = error.what();
    }
    const bool kept = persist(run, why);
    {
        const Lock lock(mutex_);
        inWork_.erase(run->id);
        if (!kept) unkept_.push_back(run);
    }
    if (!kept && !filed) throw RecordsError(why);
    if (files_ && !filed) say(fmt::format("the result of the run {} is not written yet: {}", run->id, why));
}

// Writes the end of a run to the store, otherwise to the spool. Returns false and adds the reasons when both fail.
bool StoreRecords::persist(const Shared &run, std::string &why) {
    std::string away, refusal;
    try {
        writer_.now({[run, course = courseOf(*run)](Database &store) { save(store, *run, false, course->steps); }});
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
