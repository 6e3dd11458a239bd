#pragma once
// The board's settings: `KEY = "value"` lines of a text file, loaded into a sorted table in a System V shared-memory
// segment. The segment outlives the process, and every program of the board reads it.
//
// The firmware ships the default file; the persistent file is the copy that is loaded and rewritten. A default file of
// another brand or model, or of a newer version, replaces the persistent file.
//
// Lookups take no lock. Writers take the segment's mutex; a holder that died delays the next writer by a bounded time.
// Not thread-safe.

#include <pthread.h>

#include <cstddef>
#include <cstdint>

constexpr char kDefaultConfiguration[] = "/etc/.config";
constexpr char kPersistentConfiguration[] = "/etc/sysconfig/.firewall/.config";

// Key and size of the segment. The other programs of the board share its layout.
constexpr int kConfigurationKey = 0x20120422;
constexpr size_t kConfigurationSize = 12868;

struct ConfigurationRecord {
    uint32_t index;  // the position in the table at its last rebuild
    char key[32];
    char value[64];
};
static_assert(sizeof(ConfigurationRecord) == 100);

// 128 on the board, 127 where a mutex takes 40 bytes instead of 24. The other header fields take 44.
constexpr size_t kConfigurationCapacity =
    (kConfigurationSize - sizeof(pthread_mutex_t) - 44) / sizeof(ConfigurationRecord);

struct ConfigurationSegment {
    pthread_mutex_t lock;
    int32_t count;                                      // records in the table
    uint32_t version;                                   // of the loaded file
    char identity[32];                                  // of the loaded file: brand, underscore, model
    uint32_t fill;                                      // cursor while the table is rebuilt
    ConfigurationRecord table[kConfigurationCapacity];  // ascending by key (strcmp)
};
static_assert(offsetof(ConfigurationSegment, table) == sizeof(pthread_mutex_t) + 44);
static_assert(sizeof(ConfigurationSegment) <= kConfigurationSize);

// Reloads the table from the files. Without a persistent file the table is empty; records that no longer fit are left
// out. Logs one line for these, and one for each value that is cut.
// Returns the attached segment, or null when it cannot be attached.
ConfigurationSegment *init_configuration();

// Attaches the segment, and loads the table unless some process already has: what others set in it stays.
// Returns the attached segment, or null when it cannot be attached.
ConfigurationSegment *open_configuration();

// Returns the attached segment, or null when it cannot be attached.
ConfigurationSegment *get_configuration();

// Look a key up. Return 0 or null when it is missing or the segment cannot be attached.
int IF_DEFINE(const char *key);             // 1 when the value begins with 'Y' or 'y'
int if_exist(const char *key);              // 1 when the key exists
int RETURN_DEF_INT(const char *key);        // atoi of the value
uint32_t RETURN_DEF_UINT(const char *key);  // strtoul of the value, base 10
// Points into the table, at most 63 characters; valid until the next rebuild of the table.
const char *RETURN_DEF_STR(const char *key);

// Change the table; the files stay as they are. Keys are cut to 31 characters. Values are cut to 63 with one log line;
// a null value leaves the record's value unchanged.
int add_configuration(const char *key, const char *value);  // sets or inserts; 0, or -1: not attached, or no room
int set_configuration(const char *key, const char *value);  // 0, or -1 when the key is missing
int del_configuration(const char *key);                     // 0, or -1 when the key is missing

// Sets the key in the persistent file and reloads the table. Returns 0, or -1 when the segment cannot be attached or
// the file cannot be read or rewritten; the file is then unchanged.
int save_configuration(const char *key, const char *value);
