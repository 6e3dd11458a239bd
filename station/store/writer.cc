#include "station/store/writer.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <utility>

namespace station {
namespace {

using Seconds = std::chrono::seconds;

constexpr Seconds kIdle{5};                     // between two greetings when there is nothing to write
constexpr std::chrono::milliseconds kPause{2};  // in which stations that share a file have their turns
constexpr Seconds kRetry{1};                    // between two attempts to reach a store that is away
constexpr Seconds kPatience{10};                // after which a store counts as away that neither works nor fails

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

void Writer::now(Change change) {
    std::future<void> done = later(std::move(change));
    auto deadline = Clock::now();
    {
        const Lock lock(mutex_);
        deadline = std::min(deadline, busySince_) + kPatience;
    }
    if (done.wait_until(deadline) != std::future_status::ready) throw StoreAway(silence());
    done.get();
}

std::future<void> Writer::later(Change change) {
    Job job{std::move(change), {}};
    std::future<void> done = job.promise.get_future();
    {
        const Lock lock(mutex_);
        queue_.push_back(std::move(job));
    }
    changed_.notifyAll();
    return done;
}

void Writer::loop() {
    Lock lock(mutex_);
    do {
        changed_.waitUntil(lock, Clock::now() + (away_.empty() ? kIdle : kRetry),
                           [&]() REQUIRES(mutex_) { return stopping_ || !queue_.empty(); });
        Jobs jobs = std::exchange(queue_, {});
        busySince_ = Clock::now();
        lock.unlock();
        round(std::move(jobs));
        lock.lock();
        busySince_ = Clock::time_point::max();
        // Changes that arrive during this pause share a transaction.
        changed_.waitUntil(lock, Clock::now() + kPause, [&]() REQUIRES(mutex_) { return stopping_; });
    } while (!stopping_ || !queue_.empty());
}

void Writer::round(Jobs jobs) {
    std::string why;
    try {
        if (Clock::now() < retry_) throw StoreAway(away());
        connect();
        writeAll(jobs);
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
    for (Job &job : jobs) job.promise.set_exception(std::make_exception_ptr(StoreAway(why)));
}

void Writer::connect() {
    const bool fresh = !database_;
    const auto missing = reached_ ? Database::Missing::kIsAnError : Database::Missing::kIsMade;
    if (fresh) database_ = std::make_unique<Database>(store_, missing, say_);
    if (fresh) database_->giveUpAfter(kPatience);
    greeting_(*database_, fresh);
    reached_ = true;
}

// Writes all changes in one transaction; if that fails, each in its own, so that a bad one spoils no other. Sorts those
// that lock a pool to the front, by pool: no station then waits for a pool while it holds what another one needs.
void Writer::writeAll(Jobs &jobs) {
    if (jobs.empty()) return (void)database_->ask("SELECT 1");  // else nobody would notice that it is away
    std::ranges::stable_sort(jobs, {},
                             [](const Job &job) { return std::pair(job.change.lock.empty(), job.change.lock); });
    try {
        return write(jobs, jobs.size());
    } catch (const StoreAway &) {
        database_.reset();
    } catch (const StoreError &) {  // the connection is sound
    }
    connect();
    while (!jobs.empty()) try {
            write(jobs, 1);
        } catch (const StoreAway &) {
            throw;
        } catch (const StoreError &) {
            jobs.front().promise.set_exception(std::current_exception());
            jobs.pop_front();
        }
}

// Writes the first changes in one transaction, and drops them.
void Writer::write(Jobs &jobs, size_t count) {
    database_->transact([&] {
        for (size_t i = 0; i < count; ++i) jobs[i].change.write(*database_);
    });
    for (; count > 0; --count, jobs.pop_front()) {
        if (jobs.front().change.written) jobs.front().change.written();
        jobs.front().promise.set_value();
    }
}

}  // namespace station
