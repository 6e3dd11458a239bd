#pragma once
// The facts about the board that the report judges.

#include <cstdint>

// Bits of the radios, as in support_freq.
constexpr unsigned k24G = 1;
constexpr unsigned k5G = 2;

// The four bits of a port word per entry of "SYSTEM_CHECK_ETH_STATUS".
constexpr unsigned kLinkUp = 1;
constexpr unsigned kGigabit = 2;
constexpr unsigned kFullDuplex = 4;
constexpr unsigned kExamined = 8;

struct Ports {
    uint32_t status;
    uint32_t expected;  // the status of ports that pass
    unsigned entries;

    bool pass() const { return status == expected; }
    // Returns the bits of an entry, counted from 0; 0 when there is no such entry.
    unsigned bitsOf(unsigned entry) const { return entry < entries ? status >> shiftOf(entry) & 0xF : 0; }
    // A word holds eight entries; the ninth and later ones wrap around onto the first.
    static unsigned shiftOf(unsigned entry) { return entry * 4 % 32; }
};

struct Facts {
    const char *product;  // the system's product block with its fields cut; empty texts when it cannot be read
    int memory;           // kB, 0 when it cannot be read
    bool memoryPasses;
    Ports ports;
    unsigned missing;  // fitted radios whose interface does not exist
};

// Finds all facts. Memory that cannot be read, and a port that does not report a link, fail their checks. Blocks for as
// long as "/sbin/swconfig" runs.
Facts findFacts();
