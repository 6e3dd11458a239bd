#pragma once
// Board preparation for the production line: the copies that survive flashing, the port and radio counts, the network
// addresses, and the factory reset's signals.

#include <csignal>

#include "support/system_info.h"

// Key of the description of the MAC addresses, words separated by blanks: the number of the flash partition that holds
// them, the number of wired ports, the number of radio addresses, and then one slot ID_OFFSET per address.
constexpr char kMacArguments[] = "SYSTEM_MAC_ARGS";
constexpr int kWordsBeforeSlots = 3;

// The copies that initialFunc puts on the RAM disk. They keep working while the root file system is overwritten.
constexpr char kRamBusybox[] = "/tmp/busybox";
constexpr char kRamReboot[] = "/tmp/reboot";
constexpr char kFlashNode[] = "/tmp/dev/mtd%d";  // with the partition's number

// Set by initialFunc from kMacArguments and "WIFI_DEV_DEFINE"; 0 until then.
extern int wireTotal;      // wired ports
extern int wirelessTotal;  // radio MAC slots
extern int support_freq;   // fitted radios: bit 0 2.4 GHz, bit 1 5 GHz

// The running system's product block. Empty (first byte 0) until the report reads it.
extern char systemProduct[kProductBlockSize];

// State of the factory reset: 0 idle, 1 requested by the station, 2 reset signal received. The signal handlers change
// it at any time.
extern volatile sig_atomic_t factoryResetFlag;

// Clears systemProduct, copies busybox and the device nodes to /tmp unless they are there, and reads the counts from
// the configuration.
void initialFunc();

// Gives the wired interfaces their addresses (eth0 192.168.1.1, eth1 192.168.2.1, ...) and pings the station in the
// background.
void interfaceCmd();

// Does nothing.
void resetSwitch();

// Reboots the board with the copy of busybox, and sends SIGTERM to "hardware_reset".
void reboot_func();

// Swaps the names of the two interfaces of each pair in a list such as "eth0_eth1 eth2_eth3". Stops at a pair without
// a '_'.
void exchangePorts(const char *pairs);

// Installs the handlers of SIGUSR2 (factory reset) and SIGUSR1 (release). Each writes one log line and then sets
// factoryResetFlag to 2 or 0.
void handleResetSignals();
