#include "station/page/page.h"

#include <fmt/format.h>

#include "station/page/history.h"
#include "station/page/static_files.h"

namespace station {

Page::Page(const PageSettings &settings, const std::string &store)
    : address_(settings.address), server_(settings, [](uint64_t &) { return std::string(); }) {
    server_.add(staticRoutes());
    server_.add(historyRoutes(store));
}

std::string Page::url() const { return fmt::format("http://{}:{}/", address_, server_.port()); }

}  // namespace station
