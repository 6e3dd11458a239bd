#include "support/configuration.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "support/clock.h"
#include "support/containers.h"
#include "support/handle.h"
#include "support/ignored.h"
#include "support/process_file.h"
#include "support/shell.h"
#include "support/string_utils.h"

namespace {

constexpr int kPermissions = IPC_CREAT | 0777;
constexpr int kMaxTokens = 10;
constexpr int kIdentityLines = 10;
constexpr int32_t kTurnLimit = 10000;         // milliseconds
constexpr int32_t kLockLimit = 3000;          // milliseconds
constexpr useconds_t kLockPollPause = 10000;  // microseconds

ConfigurationSegment *segment;
char line[3096];
char *tokens[kMaxTokens + 1];

struct FileIdentity {
    char text[64];  // brand (31), underscore, model (31)
    uint32_t version;
};

bool attach() {
    if (segment != nullptr) return true;
    const int id = shmget(kConfigurationKey, kConfigurationSize, kPermissions);
    if (id < 0) return false;
    void *const address = shmat(id, nullptr, 0);
    if (address == nullptr || reinterpret_cast<intptr_t>(address) == -1) return false;
    segment = static_cast<ConfigurationSegment *>(address);
    return true;
}

// Returns the number of records, at most kConfigurationCapacity: other programs write the segment, too.
size_t recordCount() {
    const int32_t count = segment->count;
    if (count < 0) return 0;
    return static_cast<size_t>(count) < kConfigurationCapacity ? static_cast<size_t>(count) : kConfigurationCapacity;
}

// Waits up to kTurnLimit for the semaphore, or without `waits` not at all, and takes it. False with errno set: EAGAIN
// if it is still taken.
bool takeSemaphore(int semaphore, bool waits) {
    sembuf free_then_taken[] = {{0, 0, 0}, {0, 1, SEM_UNDO}};
    int32_t left = waits ? kTurnLimit : 0;
    const uint32_t deadline = my_milliseconds() + static_cast<uint32_t>(left);
    for (;; left = my_millisecondsLeft(deadline)) {
        const timespec limit = {left / 1000, 1000000L * (left % 1000)};
        if (semtimedop(semaphore, free_then_taken, 2, &limit) == 0) return true;
        if (errno != EINTR) return false;
    }
}

// Processes of this program take turns with a semaphore, which the kernel releases when its holder dies. The board's
// other programs know only the mutex in the segment. The mutex is process-private, so unlocking it never wakes a waiter
// in another process; we poll. Only the process whose turn it is may declare the mutex's owner dead: if two processes
// did so at once, both would hold the new lock.
//
// Returns the semaphore, for endTurn; -1 when the turn cannot be taken. The caller then carries on without it. Waits
// and logs only the first time.
int takeTurn() {
    static bool failedBefore;
    const int semaphore = semget(kConfigurationKey, 1, kPermissions);
    const bool taken = semaphore >= 0 && takeSemaphore(semaphore, !failedBefore);
    if (!taken && !failedBefore) {
        const char *const reason =
            semaphore >= 0 && errno == EAGAIN ? "another process keeps its turn" : strerror(errno);
        syslog(LOG_ALERT, "configuration: going on without a turn (%s)\n", reason);
    }
    failedBefore = !taken;
    return taken ? semaphore : -1;
}

// A failure means that somebody has removed or reset the semaphore: there is nothing left to give back.
void endTurn(int semaphore) {
    sembuf given_back = {0, -1, SEM_UNDO | IPC_NOWAIT};
    if (semaphore >= 0) ignored(semop(semaphore, &given_back, 1));
}

void lockTable() {
    const uint32_t deadline = my_milliseconds() + kLockLimit;
    while (pthread_mutex_trylock(&segment->lock) != 0) {
        if (my_millisecondsLeft(deadline) > 0) {
            usleep(kLockPollPause);
            continue;
        }
        syslog(LOG_ALERT, "configuration: lock not released, reset it\n");
        memset(&segment->lock, 0, sizeof segment->lock);
        return lockTable();
    }
}

int unlockTable() { return pthread_mutex_unlock(&segment->lock); }

// Returns the first record that a binary search meets, or null. The probe order decides between equal keys: every
// program of the board must find the same record.
ConfigurationRecord *findRecord(const char *key) {
    ConfigurationRecord *base = segment->table;
    for (size_t left = recordCount(); left > 0;) {
        ConfigurationRecord *const probe = base + left / 2;
        const int order = strcmp(key, probe->key);
        if (order == 0) return probe;
        if (order > 0) {
            base = probe + 1;
            left -= left / 2 + 1;
        } else {
            left /= 2;
        }
    }
    return nullptr;
}

const char *findValue(const char *key) {
    if (!attach()) return nullptr;
    const ConfigurationRecord *const record = findRecord(key);
    return record != nullptr ? record->value : nullptr;
}

int compareKeys(const void *a, const void *b) {
    const int order =
        strcmp(static_cast<const ConfigurationRecord *>(a)->key, static_cast<const ConfigurationRecord *>(b)->key);
    return (order > 0) - (order < 0);
}

// Copies at most 63 characters. Returns whether the value had to be cut.
bool storeValue(ConfigurationRecord *record, const char *value) {
    if (value == nullptr) return false;
    const bool cut = strnlen(value, sizeof record->value) == sizeof record->value;
    my_copyText(record->value, value, sizeof record->value);
    return cut;
}

void logCut(const ConfigurationRecord &record) {
    syslog(LOG_ALERT, "configuration: \"%s\" is cut to %zu characters\n", record.key, sizeof record.value - 1);
}

// Adds a new record to the tree from which the table is rebuilt. Until then its index says whether its value was cut.
// Returns false when memory runs out; the tree is then unchanged.
bool addToTree(bt_tree *tree, const char *key, const char *value) {
    ConfigurationRecord *const record = static_cast<ConfigurationRecord *>(calloc(1, sizeof(ConfigurationRecord)));
    if (record == nullptr) return false;
    if (key != nullptr) my_copyText(record->key, key, sizeof record->key);
    record->index = storeValue(record, value) ? 1 : 0;
    if (bt_add(tree, record) != nullptr) return true;
    free(record);
    return false;
}

int moveIntoTable(void *value, void *) {
    ConfigurationRecord *const record = static_cast<ConfigurationRecord *>(value);
    if (record->index != 0) logCut(*record);
    const uint32_t slot = segment->fill;
    if (slot < kConfigurationCapacity) {
        record->index = slot;
        segment->table[slot] = *record;
        segment->fill = slot + 1;
    }
    free(record);
    return 1;
}

// Moves the tree's records into the table, ascending, and frees the tree. The callers add no more than fit.
void buildTable(bt_tree *tree) {
    if (bt_count(tree) > 0) {
        segment->count = bt_count(tree);
        segment->fill = 0;
        bt_traverse(tree, 1, BT_IN_ORDER, moveIntoTable, nullptr);
    }
    bt_free(tree);
}

int freeRecord(void *value, void *) {
    free(value);
    return 1;
}

void discardTree(bt_tree *tree) {
    bt_traverse(tree, 1, BT_POST_ORDER, freeRecord, nullptr);
    bt_free(tree);
}

// Splits the shared line. Returns whether it holds key, sign and value.
bool parseSetting() { return string_parse(tokens, kMaxTokens, line) >= 3; }

FileIdentity readIdentity(const char *path) {
    FileIdentity identity = {};
    const FileHandle file(fopen(path, "re"));
    if (file == nullptr) return identity;
    char model[32] = "";
    char brand[32] = "";
    for (int i = 0; i < kIdentityLines && fgets(line, sizeof line, file) != nullptr; ++i) {
        if (strncmp(line, "#&", 2) == 0) {
            if (string_parse(tokens, kMaxTokens, line) >= 2) identity.version = my_strtou32(tokens[1], nullptr, 10);
        } else if (strncmp(line, "SYSTEM_MODEL", 12) == 0) {
            if (parseSetting()) my_copyText(model, tokens[2], sizeof model);
        } else if (strncmp(line, "SYSTEM_BRAND", 12) == 0) {
            if (parseSetting()) my_copyText(brand, tokens[2], sizeof brand);
        }
        if (identity.version != 0 && model[0] != '\0' && brand[0] != '\0') break;
    }
    snprintf(identity.text, sizeof identity.text, "%s_%s", brand, model);
    return identity;
}

// Makes the persistent file the one to load, and stores its identity and version in the segment.
void selectFile() {
    const FileIdentity shipped = readIdentity(kDefaultConfiguration);
    const FileIdentity persistent = readIdentity(kPersistentConfiguration);
    const bool keep = strcmp(shipped.text, persistent.text) == 0 && persistent.version >= shipped.version;
    if (!keep) my_cp(kDefaultConfiguration, kPersistentConfiguration);
    const FileIdentity &loaded = keep ? persistent : shipped;
    my_copyText(segment->identity, loaded.text, sizeof segment->identity);
    segment->version = loaded.version;
}

// Adds the file's records to the tree. Returns false when the table is full before the file ends; tokens[0] is then the
// key of the first record that was left out.
bool readSettings(bt_tree *tree) {
    const FileHandle file(fopen(kPersistentConfiguration, "re"));
    if (file == nullptr) return true;
    while (fgets(line, sizeof line, file) != nullptr) {
        if (strchr("# \t\n", line[0]) != nullptr || !parseSetting()) continue;
        if (static_cast<size_t>(bt_count(tree)) == kConfigurationCapacity) return false;
        if (!addToTree(tree, tokens[0], tokens[2])) break;
    }
    return true;
}

// Reloads the table of an attached segment. The caller has the turn.
void loadTable() {
    // A table that was never built is all zeros. Clearing it would only make the kernel allocate its pages.
    const bool built = segment->count != 0 || segment->fill != 0;
    memset(static_cast<void *>(segment), 0, built ? kConfigurationSize : offsetof(ConfigurationSegment, table));
    lockTable();
    bt_tree *const tree = bt_init(compareKeys);
    if (tree != nullptr) {
        selectFile();
        // Nothing may be logged while the file is open: it may have descriptor 0, which the log's socket must get
        // (startService in main.cc).
        if (!readSettings(tree)) {
            syslog(LOG_ALERT, "configuration: more than %zu records, \"%s\" and the rest left out\n",
                   kConfigurationCapacity, tokens[0]);
        }
        buildTable(tree);
    }
    unlockTable();
}

// Inserts a record into the locked table. Returns false, with the table unchanged, when it is full or memory runs out.
bool insertRecord(const char *key, const char *value) {
    const size_t count = recordCount();
    if (count == kConfigurationCapacity) {
        syslog(LOG_ALERT, "configuration: no room for \"%s\"\n", key != nullptr ? key : "");
        return false;
    }
    bt_tree *const tree = bt_init(compareKeys);
    if (tree == nullptr) return false;
    bool added = true;
    for (size_t i = 0; i < count && added; ++i) {
        added = addToTree(tree, segment->table[i].key, segment->table[i].value);
    }
    if (!added || !addToTree(tree, key, value)) {
        discardTree(tree);
        return false;
    }
    buildTable(tree);
    return true;
}

void overwriteValue(ConfigurationRecord *record, const char *value) {
    if (storeValue(record, value)) logCut(*record);
}

// Copies a file of any line length and content, and replaces every line that begins with `prefix`. Returns the number
// of replaced lines, or -1 when reading failed.
int copySettings(FILE *from, FILE *to, const char *prefix, const char *key, const char *value) {
    int replaced = 0;
    char *setting = nullptr;
    size_t size = 0;
    for (;;) {
        const ssize_t length = getline(&setting, &size, from);
        if (length < 0) break;
        if (strncmp(setting, prefix, strlen(prefix)) == 0) {
            fprintf(to, "%s = \"%s\"\n", key, value);
            ++replaced;
        } else {
            fwrite(setting, 1, static_cast<size_t>(length), to);
        }
    }
    free(setting);
    return feof(from) != 0 ? replaced : -1;
}

// Writes the settings with the key set, and syncs them to the disk. False on any failure.
bool writeSettings(FILE *from, FILE *to, const char *key, const char *value) {
    char *const prefix = xasprintf("%s = ", key);
    if (prefix == nullptr) return false;
    const int replaced = copySettings(from, to, prefix, key, value);
    free(prefix);
    if (replaced == 0) {
        const time_t now = time(nullptr);
        fprintf(to, "\n#New append - %s%s = \"%s\"\n", ctime(&now), key, value);
    }
    return replaced >= 0 && fflush(to) == 0 && ferror(to) == 0 && fsync(fileno(to)) == 0;
}

// Replaces the persistent file with one in which the key is set. False on any failure; the file is then unchanged.
bool replaceFile(const char *key, const char *value) {
    const FileHandle from(fopen(kPersistentConfiguration, "re"));
    if (from == nullptr) return false;
    const char *const temporary = M("%s.new", kPersistentConfiguration);
    FileHandle to(fopen(temporary, "w+e"));
    if (to == nullptr) return false;
    const bool written = writeSettings(from, to, key, value);
    const bool complete = to.close() == 0 && written;
    if (complete) my_mv(temporary, kPersistentConfiguration);
    // my_mv has no result; it succeeded if the temporary file is gone.
    const bool replaced = complete && access(temporary, F_OK) != 0;
    if (!replaced) unlink(temporary);
    return replaced;
}

}  // namespace

ConfigurationSegment *init_configuration() {
    if (!attach()) return nullptr;
    const int turn = takeTurn();
    loadTable();
    endTurn(turn);
    return segment;
}

ConfigurationSegment *open_configuration() {
    if (!attach()) return nullptr;
    const int turn = takeTurn();
    if (recordCount() == 0 && segment->identity[0] == '\0') loadTable();
    endTurn(turn);
    return segment;
}

ConfigurationSegment *get_configuration() { return attach() ? segment : nullptr; }

int IF_DEFINE(const char *key) {
    const char *const value = findValue(key);
    return value != nullptr && (value[0] & 0xDF) == 'Y';
}

int if_exist(const char *key) { return findValue(key) != nullptr; }

int RETURN_DEF_INT(const char *key) {
    const char *const value = findValue(key);
    return value != nullptr ? atoi(value) : 0;
}

uint32_t RETURN_DEF_UINT(const char *key) {
    const char *const value = findValue(key);
    return value != nullptr ? my_strtou32(value, nullptr, 10) : 0;
}

const char *RETURN_DEF_STR(const char *key) { return findValue(key); }

int add_configuration(const char *key, const char *value) {
    if (!attach()) return -1;
    const int turn = takeTurn();
    lockTable();
    ConfigurationRecord *const record = key != nullptr ? findRecord(key) : nullptr;
    bool stored = true;
    if (record != nullptr) {
        overwriteValue(record, value);
    } else {
        stored = insertRecord(key, value);
    }
    const int unlocked = unlockTable();
    endTurn(turn);
    return stored ? unlocked : -1;
}

int set_configuration(const char *key, const char *value) {
    if (!attach()) return -1;
    const int turn = takeTurn();
    lockTable();
    ConfigurationRecord *const record = findRecord(key);
    if (record != nullptr) overwriteValue(record, value);
    unlockTable();
    endTurn(turn);
    return record != nullptr ? 0 : -1;
}

int del_configuration(const char *key) {
    if (!attach()) return -1;
    const int turn = takeTurn();
    lockTable();
    const ConfigurationRecord *const record = findRecord(key);
    if (record != nullptr) {
        // Intended: the records that move up keep their stored index, and that index also says which record is removed.
        // Every program of the board does the same. The next rebuild of the table corrects the numbers.
        const size_t count = recordCount();
        const size_t gap = record->index;
        if (gap < count && gap + 1 < count) {
            memmove(&segment->table[gap], &segment->table[gap + 1], (count - gap - 1) * sizeof(ConfigurationRecord));
        }
        segment->count = static_cast<int32_t>(count - 1);
    }
    unlockTable();
    endTurn(turn);
    return record != nullptr ? 0 : -1;
}

int save_configuration(const char *key, const char *value) {
    if (!attach()) return -1;
    const int turn = takeTurn();
    selectFile();
    const bool replaced = replaceFile(key, value);
    if (replaced) loadTable();
    endTurn(turn);
    return replaced ? 0 : -1;
}
