#include "station/page/page.h"

#include <fmt/format.h>

#include "station/page/static_files.h"

namespace station {

Page::Page(const PageSettings &settings)
    : address_(settings.address), server_(settings, [](uint64_t &) { return std::string(); }) {
    server_.add(staticRoutes());
}

std::string Page::url() const { return fmt::format("http://{}:{}/", address_, server_.port()); }

}  // namespace station
