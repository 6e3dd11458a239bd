#include "station/base/mac.h"

#include <fmt/ranges.h>
#include <re2/re2.h>

#include <vector>

namespace station {

std::optional<Mac> parseMac(std::string text) {
    static const re2::RE2 kForm("(?i)[0-9a-f]{12}|([0-9a-f]{2}:){5}[0-9a-f]{2}|([0-9a-f]{2}-){5}[0-9a-f]{2}");
    if (!re2::RE2::FullMatch(text, kForm)) return std::nullopt;
    std::erase_if(text, [](char c) { return c == ':' || c == '-'; });
    return std::stoll(text, nullptr, 16);
}

std::string formatMac(Mac mac) {
    const std::string bytes = bytesOf(mac);
    return fmt::format("{:02X}", fmt::join(std::vector<uint8_t>(bytes.begin(), bytes.end()), ":"));
}

std::string bytesOf(Mac mac) {
    std::string bytes;
    for (int shift = 40; shift >= 0; shift -= 8) bytes += char(mac >> shift);
    return bytes;
}

}  // namespace station
