#include "station/store/writer.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "station/base/time.h"
#include "station/run/record.h"

namespace station {
namespace {

using json = nlohmann::json;
using Seconds = std::chrono::seconds;

constexpr Seconds kHeartbeat{5};  // the store is written to so often when there is nothing to write
constexpr std::chrono::milliseconds kPause{2};
constexpr Seconds kRetry{1};             // between two attempts to reach a store that is away
constexpr Seconds kPatience{10};         // after which a store is away that neither works nor fails
constexpr int kAttempts = 3;             // at a record, before it is put aside
constexpr std::chrono::hours kGone{24};  // a station that was not seen for so long runs nothing any more

const std::map<std::string, std::string> kStatements = {
    {"station", "INSERT INTO stations (key, name, seen) VALUES ($1, $2, $3)"
                " ON CONFLICT (key) DO UPDATE SET name = excluded.name, seen = excluded.seen"},
    {"interrupt", "UPDATE runs SET verdict = 'interrupted' WHERE verdict = 'running'"
                  " AND station IN (SELECT id FROM stations WHERE key = $1 OR seen < $2)"},
    {"unit", "INSERT INTO units (serial, product, first_seen, last_seen) VALUES ($1, $2, $3, $3) ON CONFLICT (serial)"
             " DO UPDATE SET last_seen = excluded.last_seen, product = coalesce(units.product, excluded.product)"},
    {"run", "INSERT INTO runs (run, unit, plan, station, place, place_name, peer, started, ended, seconds, verdict,"
            " failed_step, failure, variables) VALUES ($1, (SELECT id FROM units WHERE serial = $2), $3,"
            " (SELECT id FROM stations WHERE key = $4), $5, $6, $7, $8, $9, $10, $11, $12, $13, $14) ON CONFLICT (run)"
            " DO UPDATE SET unit = excluded.unit, ended = excluded.ended, seconds = excluded.seconds,"
            " verdict = excluded.verdict, failed_step = excluded.failed_step, failure = excluded.failure,"
            " variables = excluded.variables"},
    {"attempt",
     "UPDATE runs SET attempt = (SELECT count(*) + 1 FROM runs earlier WHERE earlier.unit = runs.unit"
     " AND earlier.plan = runs.plan AND earlier.started < runs.started AND earlier.verdict IN ('passed', 'failed'))"
     " WHERE run = $1 AND verdict IN ('passed', 'failed')"},
    {"abandon", "UPDATE runs SET verdict = 'interrupted' WHERE run = $1 AND verdict = 'running'"},
    {"step",
     "INSERT INTO steps (run, step, title, verdict, reply, cut, failure, hint, started_after, seconds, attempts)"
     " VALUES ((SELECT id FROM runs WHERE run = $1), $2, $3, $4, $5, $6, $7, $8, $9, $10, $11)"
     " ON CONFLICT (run, step) DO NOTHING"},
    {"measurement", "INSERT INTO measurements (run, step, name, value, minimum, maximum, unit, verdict, plan,"
                    " started) VALUES ((SELECT id FROM runs WHERE run = $1), $2, $3, $4, $5, $6, $7, $8,"
                    " (SELECT plan FROM runs WHERE run = $1), (SELECT started FROM runs WHERE run = $1))"
                    " ON CONFLICT (run, step, name) DO NOTHING"}};

std::string now(WallClock::duration ago = {}) { return isoTime(WallClock::now() - ago); }

// A spooled line: [[name, value, ...], ...], null for NULL.
Statements parseLine(const std::string &line) {
    Statements statements;
    for (const json &entry : json::parse(line)) {
        Statement &statement = statements.emplace_back(Statement{entry.at(0).get<std::string>(), {}});
        // cppcheck-suppress danglingTempReference
        (void)kStatements.at(statement.name);
        for (size_t i = 1; i < entry.size(); ++i) {
            // cppcheck-suppress danglingTempReference
            statement.values.push_back(entry[i].is_null() ? Value() : Value(entry[i].get<std::string>()));
        }
    }
    return statements;
}

const std::set<std::string> kOfSteps = {"step", "measurement"};  // rows that nothing else of a transaction asks for
constexpr size_t kRows = 16;                                     // that are written at once

// The text with $1 as $(1 + count), and so on.
std::string shifted(const std::string &text, size_t count) {
    std::string result;
    size_t begin = 0;
    for (size_t at; (at = text.find('$', begin)) != std::string::npos;) {
        size_t digits = 0;
        const size_t number = std::stoul(text.substr(at + 1), &digits);
        result += fmt::format("{}${}", text.substr(begin, at - begin), number + count);
        begin = at + 1 + digits;
    }
    return result + text.substr(begin);
}

// Many rows with one statement: each is a round trip to a server.
void executeRows(Database &database, const std::string &name, const std::vector<std::vector<Value>> &rows) {
    const std::string &sql = kStatements.at(name);
    const size_t begin = sql.find(" VALUES ") + 8, end = sql.find(" ON CONFLICT");
    for (size_t i = 0; i < rows.size();) {
        std::string lists;
        std::vector<Value> values;
        for (const size_t stop = std::min(i + kRows, rows.size()); i < stop; ++i) {
            lists += (lists.empty() ? "" : ", ") + shifted(sql.substr(begin, end - begin), values.size());
            values.insert(values.end(), rows[i].begin(), rows[i].end());
        }
        database.queue(sql.substr(0, begin) + lists + sql.substr(end), values);
    }
}

}  // namespace

void execute(Database &database, const Statement &statement) {
    database.queue(kStatements.at(statement.name), statement.values);
}

void Writer::Job::apply(Database &database) const {
    for (const Statement &statement : statements) execute(database, statement);
    if (work) work(database);
}

std::string Writer::Job::line() const {
    json line = json::array();
    for (const Statement &statement : statements) {
        json &entry = line.emplace_back(json::array({statement.name}));
        for (const Value &value : statement.values) entry.push_back(value ? json(*value) : json());
    }
    return line.dump();
}

Writer::Writer(std::vector<std::unique_ptr<Spool>> spools, std::string store, std::string station, Trouble trouble)
    : store_(std::move(store)), station_(std::move(station)), trouble_(std::move(trouble)), spools_(std::move(spools)) {
    round({});
    thread_ = std::thread([this] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);  // else one that is meant for the line would end the process here
        loop();
    });
}

Writer::~Writer() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

std::string Writer::away() const {
    const std::lock_guard lock(mutex_);
    const bool stuck = busySince_ < Clock::now() - kPatience;
    return stuck ? fmt::format("the store {} does not answer", shownName(store_)) : away_;
}

void Writer::later(Statements statements) { submit(std::make_shared<Job>(std::move(statements))); }

void Writer::keep(Statements statements) {
    const auto job = std::make_shared<Job>(std::move(statements));
    submit(job);
    wait(*job);
}

void Writer::store(Statements statements) {
    const auto job = std::make_shared<Job>(std::move(statements), false);
    submit(job);
    wait(*job);
}

void Writer::store(std::function<void(Database &)> work) {
    const auto refusal = std::make_shared<std::exception_ptr>();  // outlives a caller who has lost patience
    const auto careful = [refusal, work = std::move(work)](Database &database) {
        *refusal = nullptr;
        try {
            work(database);
        } catch (const Refusal &) {
            *refusal = std::current_exception();
        }
    };
    const auto job = std::make_shared<Job>(careful);
    submit(job);
    wait(*job);
    if (*refusal) std::rethrow_exception(*refusal);
}

void Writer::submit(const std::shared_ptr<Job> &job) {
    {
        const std::lock_guard lock(mutex_);
        queue_.push_back(job);
    }
    changed_.notify_all();
}

// A store that hangs must not hold a board's verdict back: what waits for it goes to the spool as well.
void Writer::wait(const Job &job) {
    auto deadline = Clock::now();
    {
        const std::lock_guard lock(mutex_);
        deadline = std::min(deadline, busySince_) + kPatience;
    }
    if (job.done.wait_until(deadline) == std::future_status::ready) return job.done.get();
    if (!job.mayWait) throw StoreError(fmt::format("the store {} does not answer", shownName(store_)));
    const std::lock_guard lock(mutex_);
    spool(inHand_);
    spool(queue_);
}

void Writer::loop() {
    std::unique_lock lock(mutex_);
    do {
        changed_.wait_for(lock, away_.empty() ? kHeartbeat : kRetry, [&] { return stopping_ || !queue_.empty(); });
        inHand_ = std::exchange(queue_, {});
        busySince_ = Clock::now();
        lock.unlock();
        round(inHand_);
        lock.lock();
        busySince_ = Clock::time_point::max();
        inHand_.clear();
        // Stations that share a file have their turns in the pauses, and what comes meanwhile shares a transaction.
        changed_.wait_for(lock, kPause, [&] { return stopping_; });
    } while (!stopping_ || !queue_.empty());
}

void Writer::round(const Jobs &jobs) {
    try {
        if (Clock::now() < retry_) throw StoreError(away());
        attempt(jobs);
        setAway({});
    } catch (const std::exception &error) {
        database_.reset();
        std::string why = error.what();
        if (Clock::now() >= retry_) {
            why = fmt::format("the store {} is away: {}", shownName(store_), why);
            retry_ = Clock::now() + kRetry;
        }
        setAway(why);
        keepAll(jobs, why);
    }
}

void Writer::setAway(const std::string &why) {
    const std::lock_guard lock(mutex_);
    away_ = why;
}

// In one transaction; when that fails, over a new connection and each by itself, so that what is wrong with one spoils
// no other. The spool stays as it is until all of it is in the store.
void Writer::attempt(const Jobs &jobs) {
    std::vector<off_t> ends;
    std::vector<std::string> torn;
    Jobs all = spooled(ends, torn);
    all.insert(all.end(), unkept_.begin(), unkept_.end());
    all.insert(all.end(), jobs.begin(), jobs.end());
    connect();
    try {
        writeTogether(all);
    } catch (const StoreError &) {
        database_.reset();
        connect();
        for (const auto &job : all) writeAlone(*job);
    }
    unkept_.clear();
    for (const std::string &line : torn) putAside(line, "it cannot be read");
    for (size_t i = 0; i < spools_.size(); ++i) spools_[i]->clear(ends[i]);
    spools_.resize(1);
}

void Writer::connect() {
    if (database_) return;
    auto database = std::make_unique<Database>(store_, Database::Missing::kIsMade, trouble_);
    database->giveUpAfter(kPatience);
    database->transact([&] {
        execute(*database, {"station", {key(), station_, now()}});
        if (recovered_) return;
        for (const auto &spool : spools_) execute(*database, {"interrupt", {spool->key(), now(kGone)}});
    });
    recovered_ = true;
    database_ = std::move(database);
}

void Writer::writeTogether(const Jobs &jobs) {
    database_->transact([&] {
        execute(*database_, {"station", {key(), station_, now()}});
        // First what locks the pools, so that nobody waits for that who holds what another needs.
        for (const auto &job : jobs) {
            if (job->work) job->apply(*database_);
        }
        std::map<std::string, std::vector<std::vector<Value>>> rows;
        for (const auto &job : jobs) {
            if (job->work) continue;
            for (const Statement &statement : job->statements) {
                if (kOfSteps.contains(statement.name)) {
                    rows[statement.name].push_back(statement.values);
                } else {
                    execute(*database_, statement);
                }
            }
        }
        for (const auto &[name, all] : rows) executeRows(*database_, name, all);
    });
    for (const auto &job : jobs) {
        job->written = true;
        job->promise.set_value();
    }
}

// When the store takes other things in between, again and again, the fault is the job's.
void Writer::writeAlone(Job &job) {
    std::string why;
    for (int i = 0; i < kAttempts && !job.written; ++i) try {
            database_->transact([&] { job.apply(*database_); });
            job.written = true;
        } catch (const StoreError &error) {
            why = error.what();
            database_.reset();
            connect();
        }
    if (job.written) return job.promise.set_value();
    if (job.mayWait) putAside(job.line(), why);
    job.written = true;
    job.promise.set_exception(std::make_exception_ptr(StoreError(why)));
}

void Writer::putAside(const std::string &line, const std::string &why) {
    const std::filesystem::path path = std::filesystem::path(spools_.front()->path()).replace_extension("refused");
    std::ofstream(path, std::ios::app) << line << '\n' << std::flush;
    trouble_(fmt::format("the store refuses a record, which is kept in {}: {}", path.string(), why));
}

void Writer::spool(const Jobs &jobs) {
    std::vector<std::string> lines;
    for (const auto &job : jobs) {
        if (job->mayWait && !job->written) lines.push_back(job->line());
    }
    if (!lines.empty()) spools_.front()->append(lines);
}

void Writer::keepAll(const Jobs &jobs, const std::string &why) {
    std::exception_ptr lost;
    try {
        spool(unkept_);
        unkept_.clear();
        spool(jobs);
    } catch (const StoreError &error) {
        lost = std::make_exception_ptr(StoreError(fmt::format("{}; and {}", why, error.what())));
    }
    const auto refusal = std::make_exception_ptr(StoreError(why));
    for (const auto &job : jobs) {
        if (job->written) continue;
        if (job->mayWait && lost) unkept_.push_back(std::make_shared<Job>(job->statements));
        if (!job->mayWait || lost) {
            job->promise.set_exception(job->mayWait ? lost : refusal);
        } else {
            job->promise.set_value();
        }
    }
}

// `torn`: lines that are none, as a power cut leaves them.
Writer::Jobs Writer::spooled(std::vector<off_t> &ends, std::vector<std::string> &torn) {
    Jobs jobs;
    for (const auto &spool : spools_) {
        for (const std::string &line : spool->lines(ends.emplace_back())) {
            try {
                jobs.push_back(std::make_shared<Job>(parseLine(line)));
            } catch (const std::exception &) {
                torn.push_back(line);
            }
        }
    }
    return jobs;
}

}  // namespace station
