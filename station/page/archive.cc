#include "station/page/archive.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "station/base/time.h"

namespace station {
namespace {

constexpr std::chrono::seconds kLimit{5};  // of a question

}  // namespace

Archive::Connection *Archive::take() {
    const Lock lock(mutex_);
    const auto any = [this]() REQUIRES(mutex_) { return !free_.empty(); };
    ++waiting_;
    const bool isFree = freed_.waitUntil(lock, Clock::now() + 2 * kLimit, any);
    --waiting_;
    if (!isFree) throw TooSlow("the store has others to answer, or hangs");
    Connection *const connection = free_.back();
    free_.pop_back();
    return connection;
}

// Open connections come last, and are taken first.
void Archive::giveBack(Connection *connection) {
    Connection closed;  // after the lock
    const Lock lock(mutex_);
    const auto open = std::count_if(free_.begin(), free_.end(), [](const Connection *each) { return bool(*each); });
    if (open >= std::max(waiting_, 1)) closed = std::move(*connection);
    free_.insert(*connection ? free_.end() : free_.begin(), connection);
    freed_.notifyOne();
}

void Archive::connect(Connection &connection) try {
    use(connection, nullptr);
    auto database = std::make_unique<Database>(store_, Database::Missing::kIsAnError);
    database->onlyAsk(kLimit);
    use(connection, std::move(database));
} catch (const StoreError &error) {
    throw StoreError(fmt::format("the store {} is away: {}", shownName(store_), error.what()));
}

void Archive::use(Connection &connection, Connection database) {
    const Lock lock(mutex_);
    connection = std::move(database);
    if (stops_ && connection) connection->interrupt();
}

void Archive::stop() {
    const Lock lock(mutex_);
    stops_ = true;
    for (const Connection &connection : connections_) {
        if (connection) connection->interrupt();
    }
}

void Archive::ask(const std::function<void(Database &)> &work) {
    const auto giveBack = [this](Connection *connection) { this->giveBack(connection); };
    const std::unique_ptr<Connection, decltype(giveBack)> taken(take(), giveBack);
    const bool fresh = !*taken;
    if (fresh) connect(*taken);
    try {
        return work(**taken);
    } catch (const Refusal &) {
        throw;
    } catch (const TooSlow &) {
        throw;
    } catch (const StoreError &) {  // perhaps no more than that the connection broke since it was last used
        if (fresh) throw;
    }
    connect(*taken);
    work(**taken);
}

}  // namespace station
