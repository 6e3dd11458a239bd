#pragma once
// The store as the pages read it: over a connection of their own, so that no question holds a board up.

#include <functional>
#include <memory>
#include <string>

#include "station/base/mutex.h"
#include "station/store/database.h"

namespace station {

// May be used by many threads at once, which are served one after the other.
class Archive {
public:
    explicit Archive(std::string store) : store_(std::move(store)) {}

    // Does the work over the connection, which is made when it is first needed and again when it broke; the work may
    // then be begun twice. Throws StoreError when the store is away, or takes too long, and what the work throws.
    void ask(const std::function<void(Database &)> &work);

private:
    void takeTurn();
    void endTurn();
    void connect();

    const std::string store_;
    Mutex mutex_;
    Condition free_;
    bool busy_ GUARDED_BY(mutex_) = false;
    std::unique_ptr<Database> database_;  // belongs to the thread that has the turn
};

}  // namespace station
