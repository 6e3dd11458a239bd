#pragma once
// What is found out about the board for the report.

#include <cstdint>

constexpr unsigned k24G = 1;  // bits of the radios
constexpr unsigned k5G = 2;

// Four bits of the port words for each entry of "SYSTEM_CHECK_ETH_STATUS".
constexpr unsigned kLinkUp = 1;
constexpr unsigned kGigabit = 2;
constexpr unsigned kFullDuplex = 4;
constexpr unsigned kExamined = 8;

struct Ports {
    uint32_t status;    // what was found
    uint32_t expected;  // what was to be found
    unsigned entries;

    bool pass() const { return status == expected; }
    // The bits of the n-th entry, from 0; none when there is no such entry.
    unsigned bitsOf(unsigned entry) const { return entry < entries ? status >> shiftOf(entry) & 0xF : 0; }
    // The word holds eight entries; later ones fall onto the first ones' bits.
    static unsigned shiftOf(unsigned entry) { return entry * 4 % 32; }
};

// More wired ports than a report shows: none of its lines has fewer than 29 characters, and it is cut at 1499.
constexpr int kMostWired = 52;

using MacText = char[64];  // as stored, or "none"

struct Facts {
    const char *product;  // the system's product block, its fields cut; empty texts when it cannot be read
    int memory;           // kB
    bool memoryPasses;
    int wired;  // ports, at most kMostWired
    MacText wiredMacs[kMostWired];
    Ports ports;
    bool radioSlots;   // false: the board has no radio addresses, nothing is said of radios and country
    unsigned fitted;   // radios
    unsigned present;  // radios whose interface is there
    MacText mac24G;
    MacText mac5G;
    char country[3];
};

// Finds all of them out; what cannot be read is a failed check. Takes as long as "/sbin/swconfig" does.
void findFacts(Facts *facts);
