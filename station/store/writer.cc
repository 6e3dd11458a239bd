#include "station/store/writer.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <utility>

namespace station {
namespace {

using Seconds = std::chrono::seconds;

constexpr Seconds kIdle{5};                       // between two greetings when there is nothing to write
constexpr std::chrono::milliseconds kPause{2};    // in which stations that share a file have their turns
constexpr std::chrono::milliseconds kGather{50};  // in which steps wait for others
constexpr size_t kSteps = 300;                    // that wait at most while boards wait for other changes
constexpr Seconds kRetry{1};                      // between two attempts to reach a store that is away
constexpr Seconds kPatience{10};                  // after which a store counts as away that neither works nor fails

// Returns false for a change that no board waits for.
bool isUrgent(const std::shared_ptr<Change> &change) { return change->what != Change::kSteps; }

// Returns true when nobody serves the run any more, and it has no end: its board waits until it can begin, or was left
// out.
bool isGivenUp(const Change &change) {
    return change.run && change.what == Change::kRun && !change.inWork && !change.run->ended();
}

// If only the answer to its beginning was lost, the run is in the store all the same.
void interrupt(Database &database, const std::string &run) {
    database.queue("UPDATE runs SET verdict = 'interrupted' WHERE run = $1 AND verdict = 'running'", {run});
}

// Takes what the next transaction writes. While boards wait for other changes, steps wait for a later transaction. The
// order of a run's changes stays: of its records, the last one is written.
Changes nextOf(Changes &queue) {
    if (queue.size() > kSteps || std::ranges::none_of(queue, isUrgent)) return std::exchange(queue, {});
    const auto steps = std::stable_partition(queue.begin(), queue.end(), isUrgent);
    Changes changes(queue.begin(), steps);
    queue.erase(queue.begin(), steps);
    return changes;
}

}  // namespace

Writer::Writer(std::string store, Greeting greeting, Database::Say say)
    : store_(std::move(store)), greeting_(std::move(greeting)), say_(std::move(say)) {
    round({});
    thread_ = std::thread([this] {
        sigset_t all;  // else a signal that is meant for the line would end the process here
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        loop();
    });
}

Writer::~Writer() {
    {
        const Lock lock(mutex_);
        stopping_ = true;
    }
    changed_.notifyAll();
    thread_.join();
}

std::string Writer::silence() const { return fmt::format("the store {} does not answer", shownName(store_)); }

std::string Writer::away() const {
    const Lock lock(mutex_);
    return busySince_ < Clock::now() - kPatience ? silence() : away_;
}

void Writer::now(const std::shared_ptr<Change> &change) {
    std::future<void> done = later(change);
    auto deadline = Clock::now();
    {
        const Lock lock(mutex_);
        deadline = std::min(deadline, busySince_) + kPatience;
    }
    if (done.wait_until(deadline) != std::future_status::ready) throw StoreAway(silence());
    done.get();
}

std::future<void> Writer::later(const std::shared_ptr<Change> &change) {
    std::future<void> done = change->done.get_future();
    {
        const Lock lock(mutex_);
        queue_.push_back(change);
    }
    changed_.notifyAll();
    return done;
}

void Writer::loop() {
    Lock lock(mutex_);
    do {
        changed_.waitUntil(lock, Clock::now() + (away_.empty() ? kIdle : kRetry),
                           [&]() REQUIRES(mutex_) { return stopping_ || !queue_.empty(); });
        changed_.waitUntil(lock, Clock::now() + kGather, [&]() REQUIRES(mutex_) {
            return stopping_ || queue_.empty() || std::ranges::any_of(queue_, isUrgent);
        });
        Changes changes = nextOf(queue_);
        busySince_ = Clock::now();
        lock.unlock();
        round(std::move(changes));
        const auto pause = database_ && database_->shared() ? std::chrono::milliseconds(0) : kPause;
        lock.lock();
        busySince_ = Clock::time_point::max();
        changed_.waitUntil(lock, Clock::now() + pause, [&]() REQUIRES(mutex_) { return stopping_; });
    } while (!stopping_ || !queue_.empty());
}

void Writer::round(Changes changes) {
    std::string why;
    try {
        if (Clock::now() < retry_) throw StoreAway(away());
        connect(!changes.empty());
        writeAll(changes);
    } catch (const std::exception &error) {
        database_.reset();
        why = error.what();
        if (Clock::now() >= retry_) {
            why = fmt::format("the store {} is away: {}", shownName(store_), why);
            retry_ = Clock::now() + kRetry;
        }
    }
    {
        const Lock lock(mutex_);
        away_ = why;
    }
    for (const auto &change : changes) settle(*change, std::make_exception_ptr(StoreAway(why)));
}

void Writer::connect(bool working) {
    const bool fresh = !database_;
    const auto missing = reached_ ? Database::Missing::kIsAnError : Database::Missing::kIsMade;
    if (fresh) database_ = std::make_unique<Database>(store_, missing, say_);
    if (fresh) database_->giveUpAfter(kPatience);
    greeting_(*database_, fresh, working || !known_.empty());
    reached_ = true;
}

// Writes and drops all changes in one transaction; if that fails, each in its own, so that a bad one spoils no other.
void Writer::writeAll(Changes &changes) {
    if (changes.empty()) return (void)database_->ask("SELECT 1");  // else nobody would notice that it is away
    try {
        write(changes);
        return changes.clear();
    } catch (const StoreAway &) {
        database_.reset();
    } catch (const StoreError &) {  // the connection is sound
    }
    connect(true);
    for (; !changes.empty(); changes.erase(changes.begin())) try {
            write({changes.front()});
        } catch (const StoreAway &) {
            throw;
        } catch (const StoreError &) {
            settle(*changes.front(), std::current_exception());
        }
}

// All stations take locks in the same order: units, rows in the order of save(), pools. So none waits for a pool while
// it holds what another one needs, and a pool is locked only while statements run that have arrived together.
void Writer::write(const Changes &changes) {
    database_->transact([&] {
        Givens givens = claim(*database_, changes);
        for (const auto &change : changes) {
            if (isGivenUp(*change)) interrupt(*database_, change->run->id);
        }
        save(*database_, merged(changes));
        give(*database_, givens);
        for (const auto &change : changes) {
            if (change->ask) change->ask(*database_);
        }
    });
    for (const auto &change : changes) {
        settle(*change, change->refused.empty() ? nullptr : std::make_exception_ptr(Refusal(change->refused)));
    }
}

// Merges the records of each run, since a statement must not write a row twice.
std::vector<Saving> Writer::merged(const Changes &changes) const {
    std::map<std::string, Saving> all;
    for (const auto &change : changes) {
        if (!change->run || !change->refused.empty()) continue;
        const RunRecord &run = *change->run;
        const auto known = known_.find(run.id);
        if (known == known_.end() && change->what == Change::kSteps) continue;  // the run has ended
        const Known before = known == known_.end() ? Known() : known->second;
        Saving &saving = all[run.id];
        saving.isNew = known == known_.end();
        saving.first = before.steps;
        if (change->steps > 0) saving.steps = &run;
        if (change->what == Change::kSteps) continue;
        const bool matters = change->what == Change::kRun ? !isGivenUp(*change)
                                                          : before.unit != run.unit || before.product != productOf(run);
        if (!matters && !saving.row) continue;
        saving.row = &run;
        saving.inWork = change->inWork;
    }
    std::vector<Saving> savings;
    savings.reserve(all.size());
    for (const auto &[id, saving] : all) savings.push_back(saving);
    return savings;
}

// Notes what the store has now, and tells the board.
void Writer::settle(Change &change, const std::exception_ptr &error) {
    if (change.run && !error) note(change);
    if (change.run && !change.inWork) known_.erase(change.run->id);
    error ? change.done.set_exception(error) : change.done.set_value();
}

void Writer::note(const Change &change) {
    if (change.what == Change::kRun) known_.try_emplace(change.run->id);
    const auto found = known_.find(change.run->id);
    if (found == known_.end()) return;
    Known &known = found->second;
    known.steps = std::max(known.steps, change.steps);
    if (change.what == Change::kSteps) return;
    known.unit = change.run->unit;
    known.product = productOf(*change.run);
}

}  // namespace station
