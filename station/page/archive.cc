#include "station/page/archive.h"

#include <fmt/format.h>

namespace station {
namespace {

constexpr std::chrono::seconds kLimit{5};  // of a question

}  // namespace

void Archive::connect() try {
    database_ = std::make_unique<Database>(store_, Database::Missing::kIsAnError);
    database_->onlyAsk(kLimit);
} catch (const StoreError &error) {
    database_.reset();
    throw StoreError(fmt::format("the store {} is away: {}", shownName(store_), error.what()));
}

void Archive::ask(const std::function<void(Database &)> &work) {
    const std::unique_lock lock(turn_, 2 * kLimit);
    if (!lock) throw TooSlow("the store has others to answer, or hangs");
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
