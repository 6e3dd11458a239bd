#pragma once
// MAC addresses.

#include <cstdint>
#include <optional>
#include <string>

namespace station {

// An address as a number of 48 bits: its first byte is the highest. Signed, as databases count.
using Mac = int64_t;

// Reads twelve hexadecimal digits, in pairs with colons or hyphens or without. Returns nothing for any other text.
std::optional<Mac> parseMac(const std::string &text);

std::string formatMac(Mac mac);  // "02:00:00:00:00:FE"

std::string bytesOf(Mac mac);  // the six bytes, as a frame has them

// True when a board may have the address: it is not zero, and not a group's (multicast, broadcast).
constexpr bool isIndividual(Mac mac) { return mac != 0 && (mac >> 40 & 1) == 0; }

}  // namespace station
