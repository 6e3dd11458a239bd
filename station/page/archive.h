#pragma once
// The pages' access to the store: connections of their own, so that no query delays a board.

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "station/base/mutex.h"
#include "station/store/database.h"

namespace station {

// Any thread may call ask(); three calls are served at a time. Keeps one connection for later calls, and closes others
// that no call waits for.
class Archive {
public:
    explicit Archive(std::string store) : store_(std::move(store)) {}

    // Calls `work` with a connection, and connects first if needed. If the connection turns out to be broken,
    // reconnects and calls `work` a second time. Throws StoreError when the store is away, TooSlow when the turn or a
    // query takes too long, and whatever `work` throws.
    void ask(const std::function<void(Database &)> &work);

    // Ends the questions that are being asked, and every later one, with TooSlow. Any thread may call this.
    void stop();

private:
    using Connection = std::unique_ptr<Database>;  // belongs to the thread that took it, which sets it under the mutex

    Connection *take();
    void giveBack(Connection *connection);
    void connect(Connection &connection);
    void use(Connection &connection, Connection database);

    const std::string store_;
    Mutex mutex_;
    Condition freed_;
    std::array<Connection, 3> connections_;
    std::vector<Connection *> free_ GUARDED_BY(mutex_) = {&connections_[2], &connections_[1], connections_.data()};
    int waiting_ GUARDED_BY(mutex_) = 0;  // for a connection
    bool stops_ GUARDED_BY(mutex_) = false;
};

}  // namespace station
