#include "station/page/archive.h"

#include <fmt/format.h>

namespace station {
namespace {

constexpr std::chrono::seconds kLimit{5};  // of a question
constexpr int kGuests = 4;                 // who ask at once; each but the first waits for those before

struct Guest {
    explicit Guest(std::atomic<int> &guests) : all(guests), welcome(++guests <= kGuests) {}
    ~Guest() { --all; }
    std::atomic<int> &all;
    const bool welcome;
};

}  // namespace

void Archive::connect() try {
    database_ = std::make_unique<Database>(store_, Database::Missing::kIsAnError);
    database_->onlyAsk(kLimit);
} catch (const StoreError &error) {
    database_.reset();
    throw StoreError(fmt::format("the store {} is away: {}", shownName(store_), error.what()));
}

void Archive::ask(const std::function<void(Database &)> &work) {
    const Guest guest(guests_);
    if (!guest.welcome) throw TooSlow("the store is being asked by others: try again in a moment");
    const std::lock_guard lock(turn_);
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
