#pragma once
// The one thread of a process that writes to the store, over its one connection. Changes that arrive together share a
// transaction, and so a round trip and a sync of the disk.
//
//     Writer writer("postgresql:///line", greet);
//     writer.later({[=](Database &store) { save(store, run, true); }});       // returns at once
//     writer.now({[=](Database &store) { save(store, run); }});               // returns when it is durable

#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "station/base/mutex.h"
#include "station/base/time.h"
#include "station/store/database.h"

namespace station {

// A change of the store. `write` may be called again after a failed transaction, and must then do the same. It must own
// what it uses, since the caller may have given up waiting.
struct Change {
    std::function<void(Database &)> write;
    std::function<void()> written = {};  // called by the writer's thread after the commit
    std::string lock = {};               // the pool that it locks first; empty: it locks none
};

class Writer {
public:
    // Called by the writer's thread, outside of a transaction and before anything else is written: after each
    // connection (`fresh`), with each batch, and every few seconds. Until it returns without an exception, the store
    // counts as away.
    using Greeting = std::function<void(Database &, bool fresh)>;

    // Tries to reach the store before it returns; a store that is away is not an error. Calls `say` before it upgrades
    // the store.
    Writer(std::string store, Greeting greeting, Database::Say say);
    // Writes what waits, unless the store is away.
    ~Writer();
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    // Returns why nothing can be written at present; empty when it can.
    std::string away() const;
    // Queues a change, which is never written if the store stays away. Returns its outcome, as now() has it.
    std::future<void> later(Change change);
    // Writes a change, and returns when it is durable. Throws StoreAway when the store is away or takes too long; the
    // change may then still be written. Otherwise throws what `write` threw, or the database's error.
    void now(Change change);

private:
    struct Job {
        Change change;
        std::promise<void> promise;
    };
    using Jobs = std::deque<Job>;

    void loop();
    void round(Jobs jobs);
    void connect();
    void writeAll(Jobs &jobs);
    void write(Jobs &jobs, size_t count);
    std::string silence() const;

    const std::string store_;
    const Greeting greeting_;
    const Database::Say say_;

    // Of the thread alone.
    std::unique_ptr<Database> database_;
    Clock::time_point retry_{};
    bool reached_ = false;  // a store that is taken away later is awaited: an empty one would give its addresses again

    mutable Mutex mutex_;
    Condition changed_;
    Jobs queue_ GUARDED_BY(mutex_);
    std::string away_ GUARDED_BY(mutex_) = "the store was not reached yet";
    Clock::time_point busySince_ GUARDED_BY(mutex_) = Clock::time_point::max();
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace station
