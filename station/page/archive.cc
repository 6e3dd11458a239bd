#include "station/page/archive.h"

#include <fmt/format.h>

#include <utility>

#include "station/base/time.h"

namespace station {
namespace {

constexpr std::chrono::seconds kLimit{5};  // of a question

}  // namespace

Archive::Connection *Archive::take() {
    const Lock lock(mutex_);
    const auto any = [this]() REQUIRES(mutex_) { return !free_.empty(); };
    if (!freed_.waitUntil(lock, Clock::now() + 2 * kLimit, any)) {
        throw TooSlow("the store has others to answer, or hangs");
    }
    Connection *const connection = free_.back();
    free_.pop_back();
    return connection;
}

void Archive::giveBack(Connection *connection) {
    const Lock lock(mutex_);
    free_.push_back(connection);
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
