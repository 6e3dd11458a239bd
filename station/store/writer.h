#pragma once
// The one thread of a process that writes to the store, over its one connection. Changes that arrive together share a
// transaction and its statements, and so a round trip and a sync of the disk.
//
//     Writer writer("postgresql:///line", greet, say);
//     writer.now(change);    // returns when it is durable
//     writer.later(change);  // returns at once

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "station/base/mutex.h"
#include "station/base/time.h"
#include "station/store/claim.h"
#include "station/store/database.h"
#include "station/store/save.h"

namespace station {

class Writer {
public:
    // Called by the writer's thread, outside of a transaction and before anything else is written: after each
    // connection (`fresh`), with each batch, and every few seconds. `working`: runs are in work. Until it returns
    // without an exception, the store counts as away.
    using Greeting = std::function<void(Database &, bool fresh, bool working)>;

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
    std::future<void> later(const std::shared_ptr<Change> &change);
    // Writes a change, and returns when it is durable. Throws StoreAway when the store is away or takes too long; the
    // change may then still be written. Otherwise throws Refusal, or the database's error.
    void now(const std::shared_ptr<Change> &change);

private:
    // The part of a run in work that the store has.
    struct Known {
        std::string unit, product;
        size_t steps = 0;
    };

    void loop();
    void round(Changes changes);
    void connect(bool working);
    void writeAll(Changes &changes);
    void write(const Changes &changes);
    std::vector<Saving> merged(const Changes &changes) const;
    void settle(Change &change, const std::exception_ptr &error);
    void note(const Change &change);
    std::string silence() const;

    const std::string store_;
    const Greeting greeting_;
    const Database::Say say_;

    // Of the thread alone.
    std::unique_ptr<Database> database_;
    Clock::time_point retry_{};
    bool reached_ = false;  // a store that is taken away later is awaited: an empty one would give its addresses again
    std::map<std::string, Known> known_;  // by the run's ID

    mutable Mutex mutex_;
    Condition changed_;
    Changes queue_ GUARDED_BY(mutex_);
    std::string away_ GUARDED_BY(mutex_) = "the store was not reached yet";
    Clock::time_point busySince_ GUARDED_BY(mutex_) = Clock::time_point::max();
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace station
