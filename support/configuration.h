#pragma once
// The board's settings: `KEY = "value"` lines of a text file, loaded into a sorted table in a System V shared-memory
// segment that outlives the process and that every program of the board reads.
//
// "/etc/.config" is the default file of the firmware; the persistent file is the copy that is loaded and rewritten.
// A default of another brand and model, or of a newer version, replaces the persistent file whole.
//
// Lookups take no lock. Whatever writes the table takes the segment's mutex; a holder that has died costs the next
// writer a bounded wait. Not for several threads of one process.

#include <pthread.h>

#include <cstddef>
#include <cstdint>

constexpr char kDefaultConfiguration[] = "/etc/.config";
constexpr char kPersistentConfiguration[] = "/etc/sysconfig/.firewall/.config";

// The layout of the segment is shared with the other programs of the board: 12868 bytes under key 0x20120422.
constexpr int kConfigurationKey = 0x20120422;
constexpr size_t kConfigurationSize = 12868;

struct ConfigurationRecord {
    uint32_t index;  // position in the table when the table was last built
    char key[32];
    char value[64];
};
static_assert(sizeof(ConfigurationRecord) == 100);

// 128 on the board; 127 where the mutex takes 40 bytes instead of 24. The other header fields take 44.
constexpr size_t kConfigurationCapacity =
    (kConfigurationSize - sizeof(pthread_mutex_t) - 44) / sizeof(ConfigurationRecord);

struct ConfigurationSegment {
    pthread_mutex_t lock;
    int32_t count;                                      // records in the table
    uint32_t version;                                   // of the loaded file
    char identity[32];                                  // of the loaded file: brand, underscore, model
    uint32_t fill;                                      // cursor while the table is built
    ConfigurationRecord table[kConfigurationCapacity];  // ascending by key (strcmp)
};
static_assert(offsetof(ConfigurationSegment, table) == sizeof(pthread_mutex_t) + 44);
static_assert(sizeof(ConfigurationSegment) <= kConfigurationSize);

// Loads the table anew from the files. Returns the attached segment, null when it cannot be attached. The table is
// empty when there is no persistent file; records that no longer fit are left out with one log line.
ConfigurationSegment *init_configuration();

// Attaches, and loads the table only if nothing has loaded it yet: what others have set in it stays.
ConfigurationSegment *open_configuration();

// The attached segment, null when it cannot be attached.
ConfigurationSegment *get_configuration();

// Lookups; a key that is missing, or a segment that cannot be attached, gives 0 or null.
int IF_DEFINE(const char *key);             // 1 when the value begins with 'Y' or 'y'
int if_exist(const char *key);              // 1 when the key exists
int RETURN_DEF_INT(const char *key);        // atoi of the value
uint32_t RETURN_DEF_UINT(const char *key);  // strtoul of the value, base 10
// Points into the table, at most 63 characters; valid until the table is next built.
const char *RETURN_DEF_STR(const char *key);

// Writers of the table; the files stay as they are. Keys are cut to 31 characters, values to 63; a null value leaves
// the record's value as it is.
int add_configuration(const char *key, const char *value);  // sets or inserts; 0, or -1: not attached, or table full
int set_configuration(const char *key, const char *value);  // 0, or -1 when the key is missing
int del_configuration(const char *key);                     // 0, or -1 when the key is missing

// Sets the key in the persistent file and loads the table anew. 0, or -1 when the file cannot be read or rewritten
// (it is then as before) or the segment cannot be attached.
int save_configuration(const char *key, const char *value);
