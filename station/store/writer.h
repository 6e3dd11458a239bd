#pragma once
// The one thread of a process that writes to the store, over its one connection. What is given to it at the same time
// shares a transaction, and so a round trip and a sync of the disk.
//
//     Writer writer("postgresql:///line", greet);
//     writer.later({[=](Database &store) { save(store, run, true); }});       // returns at once
//     writer.now({[=](Database &store) { save(store, run); }});               // returns when it is durable

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "station/base/mutex.h"
#include "station/store/database.h"

namespace station {

// Something to write. It may be called again when a transaction has failed, and must then do the same. What it holds
// must outlive its caller, who may have lost patience.
struct Change {
    std::function<void(Database &)> write;
    std::function<void()> written = {};  // called by the writer's thread after the commit
    std::string lock = {};               // the pool that it locks first; empty: it locks none
};

class Writer {
public:
    // Called by the writer's thread outside of a transaction before anything else is written, again and again: after
    // each connection (`fresh`), with each batch, and every few seconds. The store counts as away until it returns
    // without an exception.
    using Greeting = std::function<void(Database &, bool fresh)>;

    // Tries to reach the store before it returns; a store that is away is not an error. `say` is told when the store is
    // brought forward to this version.
    Writer(std::string store, Greeting greeting, Database::Say say);
    // Writes what waits, unless the store is away.
    ~Writer();
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    // Returns why nothing can be written at present; empty: it can.
    std::string away() const;
    // Writes it some time, or never, if the store is away.
    void later(Change change);
    // Returns when the work is durable. Throws StoreAway when the store is away or takes too long, in which case it may
    // still be written; else what the work threw, or what the database refuses.
    void now(Change change);

private:
    using Clock = std::chrono::steady_clock;
    struct Job {
        Change change;
        std::promise<void> promise{};
        bool done = false;  // the promise is kept

        void settle(const std::exception_ptr &error);
    };
    using Jobs = std::vector<std::shared_ptr<Job>>;

    std::shared_ptr<Job> submit(Change change);
    void loop();
    void round(const Jobs &jobs);
    void connect();
    void writeTogether(const Jobs &jobs);
    void writeAlone(Job &job);
    std::string silence() const;
    void setAway(const std::string &why);

    const std::string store_;
    const Greeting greeting_;
    const Database::Say say_;

    // Of the thread alone.
    std::unique_ptr<Database> database_;
    Clock::time_point retry_{};

    mutable Mutex mutex_;
    Condition changed_;
    Jobs queue_ GUARDED_BY(mutex_);
    std::string away_ GUARDED_BY(mutex_) = "the store was not reached yet";
    Clock::time_point busySince_ GUARDED_BY(mutex_) = Clock::time_point::max();
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace station
