#pragma once
// The link of an Ethernet interface.

#include <cstdint>

// Stores the speed in Mbit/s (0 unless it is 10, 100, 1000, 2500 or 10000) and the duplex mode (1 full, 0 half).
// Returns 0, or -1 when the link is down, the interface does not exist or does not report its settings; both results
// are then unchanged.
int my_get_ethtool(const char *name, uint32_t *speed, uint32_t *duplex);
