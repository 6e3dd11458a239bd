#pragma once
// The pages' access to the store: a connection of their own, so that no query delays a board.

#include <functional>
#include <memory>
#include <string>

#include "station/base/mutex.h"
#include "station/store/database.h"

namespace station {

// Any thread may call ask(); calls are served one at a time.
class Archive {
public:
    explicit Archive(std::string store) : store_(std::move(store)) {}

    // Calls `work` with the connection, and connects first if needed. If the connection turns out to be broken,
    // reconnects and calls `work` a second time. Throws StoreError when the store is away, TooSlow when the turn or a
    // query takes too long, and whatever `work` throws.
    void ask(const std::function<void(Database &)> &work);

    // Ends the question that is being asked, and every later one, with TooSlow. Any thread may call this.
    void stop();

private:
    void takeTurn();
    void endTurn();
    void connect();
    void use(std::unique_ptr<Database> database);

    const std::string store_;
    Mutex mutex_;
    Condition free_;
    bool busy_ GUARDED_BY(mutex_) = false, stops_ GUARDED_BY(mutex_) = false;
    std::unique_ptr<Database> database_;  // belongs to the thread that has the turn, which changes it under the mutex
};

}  // namespace station
