#pragma once
// MAC addresses.

#include <cstdint>
#include <optional>
#include <string>

namespace station {

// An address as a number of 48 bits; its first byte is the highest. Signed, as integers are in databases.
using Mac = int64_t;

// Reads twelve hexadecimal digits, in pairs with colons or hyphens or without. Returns nothing for any other text.
std::optional<Mac> parseMac(std::string text);

// Returns the address as "02:00:00:00:00:FE".
std::string formatMac(Mac mac);

// Returns the six bytes in the order in which a frame has them.
std::string bytesOf(Mac mac);

// Returns true when a board may have the address: it is neither zero nor a group's (multicast, broadcast).
constexpr bool isIndividual(Mac mac) { return mac != 0 && (mac >> 40 & 1) == 0; }

}  // namespace station
