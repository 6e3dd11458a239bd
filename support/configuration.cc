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

#include "support/containers.h"
#include "support/handle.h"
#include "support/process_file.h"
#include "support/shell.h"
#include "support/string_utils.h"

namespace {

constexpr int kPermissions = IPC_CREAT | 0777;
constexpr int kMaxTokens = 10;
constexpr int kIdentityLines = 10;
constexpr time_t kTurnSeconds = 10;
constexpr int kLockPolls = 300;
constexpr useconds_t kLockPollPause = 10000;

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

// Other programs write the segment too, so its count is not trusted to stay inside the table.
size_t recordCount() {
    const int32_t count = segment->count;
    if (count < 0) return 0;
    return static_cast<size_t>(count) < kConfigurationCapacity ? static_cast<size_t>(count) : kConfigurationCapacity;
}

// Processes of this program take turns by a semaphore that the kernel gives back when its holder dies. The mutex in
// the segment is what the board's other programs know; being a private one it wakes nobody in another process, so it
// is polled, and only whoever has the turn may judge that its holder is dead: two that did so at once would both
// come to hold the fresh lock.
int heldTurn = -1;  // the semaphore, while this process has the turn
bool turnRefused;   // the last one was not to be had

// When the turn is not to be had in time the caller goes on without it. That time is waited for once, and said once: as
// long as the turn is not given back, later calls only look.
void takeTurn() {
    if (heldTurn >= 0) return;  // could not be given back the last time
    sembuf free_then_taken[] = {{0, 0, 0}, {0, 1, SEM_UNDO}};
    const int turn = semget(kConfigurationKey, 1, kPermissions);
    timespec limit = {turnRefused ? 0 : kTurnSeconds, 0};
    int failed;
    do failed = semtimedop(turn, free_then_taken, 2, &limit);
    while (failed != 0 && errno == EINTR);
    if (failed == 0) heldTurn = turn;
    if (failed != 0 && !turnRefused) {
        syslog(LOG_ALERT, "configuration: another process keeps its turn, going on without (%s)\n", strerror(errno));
    }
    turnRefused = failed != 0;
}

// A semaphore that somebody has removed or set free meanwhile is nobody's turn any more.
void endTurn() {
    sembuf given_back = {0, -1, SEM_UNDO | IPC_NOWAIT};
    if (heldTurn < 0) return;
    const bool kept = semop(heldTurn, &given_back, 1) != 0 && errno != EINVAL && errno != EIDRM && errno != EAGAIN;
    if (!kept) heldTurn = -1;
}

void lockTable() {
    for (int polls = 0; pthread_mutex_trylock(&segment->lock) != 0; ++polls) {
        if (polls == kLockPolls) {
            syslog(LOG_ALERT, "configuration: the lock's holder does not give it back, made a fresh one\n");
            memset(&segment->lock, 0, sizeof segment->lock);
            polls = 0;
        } else {
            usleep(kLockPollPause);
        }
    }
}

int unlockTable() { return pthread_mutex_unlock(&segment->lock); }

// The first record met by probing the middle of what remains. Of several equal keys it is the probe order that
// decides, and every program of the board is to find the same one.
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

// Adds a new record to the build tree. False when memory ran out; the tree is then as before.
bool addToTree(bt_tree *tree, const char *key, const char *value) {
    ConfigurationRecord *const record = static_cast<ConfigurationRecord *>(calloc(1, sizeof(ConfigurationRecord)));
    if (record == nullptr) return false;
    if (key != nullptr) my_copyText(record->key, key, sizeof record->key);
    if (value != nullptr) my_copyText(record->value, value, sizeof record->value);
    if (bt_add(tree, record) != nullptr) return true;
    free(record);
    return false;
}

int moveIntoTable(void *value, void *) {
    ConfigurationRecord *const record = static_cast<ConfigurationRecord *>(value);
    const uint32_t slot = segment->fill;
    if (slot < kConfigurationCapacity) {
        record->index = slot;
        segment->table[slot] = *record;
        segment->fill = slot + 1;
    }
    free(record);
    return 1;
}

// Empties the tree's records into the table, ascending, and frees the tree. It holds no more than the table does.
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

// Splits the shared line; true when it holds key, sign and value.
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

// Makes the persistent file the one to load, and notes in the segment whose it is.
void selectFile() {
    const FileIdentity shipped = readIdentity(kDefaultConfiguration);
    const FileIdentity persistent = readIdentity(kPersistentConfiguration);
    const bool keep = strcmp(shipped.text, persistent.text) == 0 && persistent.version >= shipped.version;
    if (!keep) my_cp(kDefaultConfiguration, kPersistentConfiguration);
    const FileIdentity &loaded = keep ? persistent : shipped;
    my_copyText(segment->identity, loaded.text, sizeof segment->identity);
    segment->version = loaded.version;
}

// False when the table is full before the file ends; the key of the first record left out is then in tokens[0].
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

// True of a segment that nobody has loaded yet: the kernel makes it of zeros.
bool isFresh() {
    const char *const header = reinterpret_cast<const char *>(segment);
    size_t zeros = 0;
    while (zeros < offsetof(ConfigurationSegment, table) && header[zeros] == 0) ++zeros;
    return zeros == offsetof(ConfigurationSegment, table);
}

// Loads the table of an attached segment; for whoever has the turn.
void loadTable() {
    // To clear a fresh one would take all of its pages, which most tables do not fill.
    if (!isFresh()) memset(static_cast<void *>(segment), 0, kConfigurationSize);
    lockTable();
    bt_tree *const tree = bt_init(compareKeys);
    if (tree != nullptr) {
        selectFile();
        // Logged when the file is closed, which may have descriptor 0: that one is the log's (startService in main.cc).
        if (!readSettings(tree)) {
            syslog(LOG_ALERT, "configuration: more than %zu records, \"%s\" and what follows left out\n",
                   kConfigurationCapacity, tokens[0]);
        }
        buildTable(tree);
    }
    unlockTable();
}

// Inserts into the locked table. False when it is full or memory ran out; it is then as before.
bool insertRecord(const char *key, const char *value) {
    const size_t count = recordCount();
    if (count == kConfigurationCapacity) {
        syslog(LOG_ALERT, "configuration: no room for \"%s\" beside %zu records\n", key != nullptr ? key : "", count);
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
    if (value != nullptr) my_copyText(record->value, value, sizeof record->value);
}

// Copies the settings, of whatever length and content, with every line that begins with `prefix` replaced. Returns how
// many did, -1 when the copy is not complete.
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

// Writes the settings with the key set, down to the disk. False on any failure.
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

// Replaces the persistent file by one that has the key set. False on any failure; it is then as before.
bool replaceFile(const char *key, const char *value) {
    const FileHandle from(fopen(kPersistentConfiguration, "re"));
    if (from == nullptr) return false;
    const char *const temporary = M("%s.new", kPersistentConfiguration);
    FileHandle to(fopen(temporary, "w+e"));
    if (to == nullptr) return false;
    const bool written = writeSettings(from, to, key, value);
    const bool complete = to.close() == 0 && written;
    if (complete) my_mv(temporary, kPersistentConfiguration);
    // my_mv tells nothing: the temporary file does, by being gone.
    const bool replaced = complete && access(temporary, F_OK) != 0;
    if (!replaced) unlink(temporary);
    return replaced;
}

}  // namespace

ConfigurationSegment *init_configuration() {
    if (!attach()) return nullptr;
    takeTurn();
    loadTable();
    endTurn();
    return segment;
}

ConfigurationSegment *open_configuration() {
    if (!attach()) return nullptr;
    takeTurn();
    if (recordCount() == 0 && segment->identity[0] == '\0') loadTable();
    endTurn();
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
    takeTurn();
    lockTable();
    ConfigurationRecord *const record = key != nullptr ? findRecord(key) : nullptr;
    bool stored = true;
    if (record != nullptr) {
        overwriteValue(record, value);
    } else {
        stored = insertRecord(key, value);
    }
    const int unlocked = unlockTable();
    endTurn();
    return stored ? unlocked : -1;
}

int set_configuration(const char *key, const char *value) {
    if (!attach()) return -1;
    takeTurn();
    lockTable();
    ConfigurationRecord *const record = findRecord(key);
    if (record != nullptr) overwriteValue(record, value);
    unlockTable();
    endTurn();
    return record != nullptr ? 0 : -1;
}

int del_configuration(const char *key) {
    if (!attach()) return -1;
    takeTurn();
    lockTable();
    const ConfigurationRecord *const record = findRecord(key);
    if (record != nullptr) {
        // What moves up keeps the index it had, and it is the stored index that says where the gap is: intended, as
        // every program of the board does the same. The next build of the table sets the numbers right.
        const size_t count = recordCount();
        const size_t gap = record->index;
        if (gap < count && gap + 1 < count) {
            memmove(&segment->table[gap], &segment->table[gap + 1], (count - gap - 1) * sizeof(ConfigurationRecord));
        }
        segment->count = static_cast<int32_t>(count - 1);
    }
    unlockTable();
    endTurn();
    return record != nullptr ? 0 : -1;
}

int save_configuration(const char *key, const char *value) {
    if (!attach()) return -1;
    takeTurn();
    selectFile();
    const bool replaced = replaceFile(key, value);
    if (replaced) loadTable();
    endTurn();
    return replaced ? 0 : -1;
}
