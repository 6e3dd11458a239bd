#pragma once
// The link of an Ethernet interface.

#include <cstdint>

// Stores the speed in Mbit/s, 0 for an unusual one, and 1 for full or 0 for half duplex. Returns 0; or -1 when the
// link is down, there is no such interface or it does not tell, and both results are as before.
int my_get_ethtool(const char *name, uint32_t *speed, uint32_t *duplex);
