#include "station/base/mac.h"

#include <fmt/format.h>

#include <charconv>

namespace station {

std::optional<Mac> parseMac(const std::string &text) {
    std::string digits;
    const char separator = text.size() == 17 ? text[2] : '\0';
    for (size_t i = 0; i < text.size(); ++i) {
        const bool between = i % 3 == 2 && text[i] == separator && (separator == ':' || separator == '-');
        if (!between) digits += text[i];
    }
    uint64_t mac = 0;
    const char *const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, mac, 16);
    if (digits.size() != 12 || stop != end || error != std::errc()) return std::nullopt;
    return Mac(mac);
}

std::string formatMac(Mac mac) {
    const auto byte = [&](int index) { return uint8_t(mac >> (40 - 8 * index)); };
    return fmt::format("{:02X}:{:02X}:{:02X}:{:02X}:{:02X}:{:02X}", byte(0), byte(1), byte(2), byte(3), byte(4),
                       byte(5));
}

std::string bytesOf(Mac mac) {
    std::string bytes;
    for (int shift = 40; shift >= 0; shift -= 8) bytes += char(mac >> shift);
    return bytes;
}

}  // namespace station
