#pragma once
// Flash and Ethernet links for the native board, for the process that this is linked into.
//
// Flash: regular files under /tmp/dev whose names begin with "mtd" answer the MTD requests, and
// are written as NOR flash is: a write only clears bits, an erase sets them.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake_mtd {

// What is to go wrong.
struct Faults {
    bool info = false;       // MEMGETINFO fails
    bool erase = false;      // MEMUNLOCK and MEMERASE fail and do nothing
    int failingWrite = 0;    // the n-th write fails, from 1; 0 for none
    int interruptEvery = 0;  // every n-th write is interrupted by a signal, with nothing written
    size_t atOnce = 0;       // a write takes at most so many bytes; 0 for all
};

extern Faults faults;
extern uint32_t eraseSize;
extern size_t largestWrite;                // bytes handed to one write since reset
extern std::vector<std::string> requests;  // MEMUNLOCK and MEMERASE since reset: "unlock 0", "erase 65536"

// No faults, erase blocks of 64 KiB, no requests.
void reset();

// Creates partition `number` with this content, under /dev and under /tmp/dev.
void create(int number, const std::string &content);
std::string content(int number);

}  // namespace fake_mtd

// What the ethtool request answers for interfaces of these names; for others it fails.
namespace fake_link {

struct Link {
    bool up = true;
    uint16_t speed = 1000;
    uint8_t duplex = 1;
    bool told = true;  // false: the settings cannot be read
};

extern std::map<std::string, Link> links;

}  // namespace fake_link
