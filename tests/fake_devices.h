#pragma once
// Flash and Ethernet links for the native board, for the process that this is linked into.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Regular files under /tmp/dev whose names begin with "mtd" answer the MTD requests, and are written as NOR flash is:
// a write only clears bits, an erase sets them.
struct FakeFlash {
    uint32_t eraseSize = 65536;
    // What is to go wrong.
    bool failInfo = false;     // MEMGETINFO fails
    bool failErase = false;    // MEMUNLOCK and MEMERASE fail and do nothing
    int failingWrite = 0;      // the n-th write fails, from 1; 0 for none
    int interruptEvery = 0;    // every n-th write is interrupted by a signal, with nothing written
    size_t atOnce = SIZE_MAX;  // a write takes at most so many bytes
    // What was asked.
    int writes = 0;
    std::vector<std::string> requests = {};  // MEMUNLOCK and MEMERASE: "unlock 0", "erase 65536"
};
inline FakeFlash fakeFlash;

// What the ethtool request answers for interfaces of these names; for others it fails.
struct FakeLink {
    bool up = true;
    uint16_t speed = 1000;
    uint8_t duplex = 1;
    bool told = true;  // false: the settings cannot be read
};
inline std::map<std::string, FakeLink> fakeLinks;  // without any, the kernel answers
