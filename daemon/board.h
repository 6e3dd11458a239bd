#pragma once
// Board preparation for the production line: what survives the flashing, the port and radio counts, the network
// addresses, and the handshake with the factory reset.

#include <csignal>

#include "support/system_info.h"

// "SYSTEM_MAC_ARGS" describes the board's MAC addresses: the number of the flash partition that holds them, the number
// of wired ports, the number of radio addresses, and from there on a slot ID_OFFSET each, with a blank between words.
constexpr char kMacArguments[] = "SYSTEM_MAC_ARGS";
constexpr int kWordsBeforeSlots = 3;

// The text behind the next `count` blanks, null when there are fewer.
const char *skipWords(const char *text, int count);

// What initialFunc puts on the RAM disk, where it goes on working while the root file system is overwritten.
constexpr char kRamBusybox[] = "/tmp/busybox";
constexpr char kRamReboot[] = "/tmp/reboot";
constexpr char kRamFlash[] = "/tmp/dev/mtd%d";  // by the partition's number

// Set by initialFunc from kMacArguments and "WIFI_DEV_DEFINE"; 0 until then.
extern int wireTotal;      // wired ports
extern int wirelessTotal;  // radio MAC slots
extern int support_freq;   // radios fitted: bit 0 2.4 GHz, bit 1 5 GHz

// The running system's product block, empty (first byte 0) until the report reads it.
extern char systemProduct[kProductBlockSize];

// 0 idle, 1 reset requested by the station, 2 reset signal seen. The signal handlers change it at any time.
extern volatile sig_atomic_t factoryResetFlag;

// Copies busybox and the device nodes to /tmp, once a boot, and reads the counts from the configuration.
void initialFunc();

// Addresses the wired interfaces (eth0 192.168.1.1, eth1 192.168.2.1, ...) and pings the station in the background.
void interfaceCmd();

// Empty: this board's switch needs no reset. Callers keep the place where one would happen.
void resetSwitch();

// Reboots the board, by the copy of busybox that outlives the flash, and ends "hardware_reset".
void reboot_func();

// Swaps the names of the interfaces of each pair in a list such as "eth0_eth1 eth2_eth3". A pair without '_' ends it.
void exchangePorts(const char *pairs);

// From here on the factory reset's signals, SIGUSR2 for the reset and SIGUSR1 for the release, each write one log line
// and then the flag.
void handleResetSignals();
