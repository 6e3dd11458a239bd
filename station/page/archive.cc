#include "station/page/archive.h"

#include <fmt/format.h>

#include <utility>

#include "station/base/time.h"

namespace station {
namespace {

constexpr std::chrono::seconds kLimit{5};  // of a question

}  // namespace

void Archive::connect() try {
    use(nullptr);
    auto database = std::make_unique<Database>(store_, Database::Missing::kIsAnError);
    database->onlyAsk(kLimit);
    use(std::move(database));
} catch (const StoreError &error) {
    throw StoreError(fmt::format("the store {} is away: {}", shownName(store_), error.what()));
}

void Archive::use(std::unique_ptr<Database> database) {
    const Lock lock(mutex_);
    database_ = std::move(database);
    if (stops_ && database_) database_->interrupt();
}

void Archive::stop() {
    const Lock lock(mutex_);
    stops_ = true;
    if (database_) database_->interrupt();
}

void Archive::takeTurn() {
    const Lock lock(mutex_);
    const auto free = [this]() REQUIRES(mutex_) { return !busy_; };
    if (!free_.waitUntil(lock, Clock::now() + 2 * kLimit, free)) {
        throw TooSlow("the store has others to answer, or hangs");
    }
    busy_ = true;
}

void Archive::endTurn() {
    const Lock lock(mutex_);
    busy_ = false;
    free_.notifyOne();
}

void Archive::ask(const std::function<void(Database &)> &work) {
    takeTurn();
    const auto end = [](Archive *archive) { archive->endTurn(); };
    const std::unique_ptr<Archive, decltype(end)> turn(this, end);
    const bool fresh = !database_;
    if (fresh) connect();
    try {
        return work(*database_);
    } catch (const Refusal &) {
        throw;
    } catch (const TooSlow &) {
        throw;
    } catch (const StoreError &) {  // perhaps no more than that the connection broke since it was last used
        if (fresh) throw;
    }
    connect();
    work(*database_);
}

}  // namespace station
