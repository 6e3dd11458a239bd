#include "support/process_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/handle.h"
#include "support/ignored.h"
#include "support/shell.h"

namespace {

constexpr int kKillFailures = 6;
constexpr useconds_t kKillPause = 300;
constexpr size_t kCopyBlock = 4096;

// Fills the record if /proc/ENTRY belongs to a process of this name. Returns whether it does.
bool readProcess(const char *entry, const char *name, my_proc *record) {
    char text[256];
    snprintf(text, sizeof text, "/proc/%s/stat", entry);
    const DescriptorHandle stat(open(text, O_RDONLY | O_CLOEXEC));
    if (stat < 0) return false;
    const ssize_t length = read(stat, text, sizeof text - 1);
    if (length <= 0) return false;
    text[length] = '\0';

    // A command name may itself contain parentheses: it ends at the last one.
    char *const opening = strchr(text, '(');
    char *const closing = strrchr(text, ')');
    if (opening == nullptr || closing == nullptr || closing < opening) return false;
    *closing = '\0';
    if (strcmp(opening + 1, name) != 0) return false;
    const char *const rest = closing + 1;
    record->pid = static_cast<int32_t>(strtol(entry, nullptr, 10));
    record->state = rest[strspn(rest, " ")];
    return true;
}

// Returns the chain of all matches, or with `firstOnly` of the first one.
my_proc *findProcesses(const char *name, bool firstOnly) {
    DIR *const directory = opendir("/proc");
    if (directory == nullptr) return nullptr;
    my_proc *chain = nullptr;
    while (const dirent *const entry = readdir(directory)) {
        my_proc found = {};
        if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
        if (!readProcess(entry->d_name, name, &found)) continue;
        my_proc *const record = static_cast<my_proc *>(malloc(sizeof(my_proc)));
        if (record == nullptr) continue;
        *record = found;
        record->next = chain;
        chain = record;
        if (firstOnly) break;
    }
    closedir(directory);
    return chain;
}

void killExcept(const char *name, int signal, pid_t spared) {
    my_proc *const chain = my_findproc(name);
    for (const my_proc *process = chain; process != nullptr; process = process->next) {
        if (process->pid != spared) kill(process->pid, signal);
    }
    my_freeproc(chain);
}

bool isDotEntry(const char *name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

constexpr int kUnreadable = 1;

// Calls `handle` with each child of the directory and, unless `other` is null, with its counterpart in `other`.
// Returns 0; -1 at the first child for which `handle` fails; kUnreadable when the directory cannot be opened.
int forEachChild(const char *directory, const char *other, int (*handle)(const char *child, const char *counterpart)) {
    DIR *const opened = opendir(directory);
    if (opened == nullptr) return kUnreadable;
    int result = 0;
    while (result == 0) {
        const dirent *const entry = readdir(opened);
        if (entry == nullptr) break;
        if (isDotEntry(entry->d_name)) continue;
        char *const child = concat_path_file(directory, entry->d_name);
        char *const counterpart = other != nullptr ? concat_path_file(other, entry->d_name) : nullptr;
        const bool allocated = child != nullptr && (other == nullptr || counterpart != nullptr);
        result = allocated ? handle(child, counterpart) : -1;
        free(child);
        free(counterpart);
    }
    closedir(opened);
    return result;
}

ssize_t readBlock(int descriptor, char *block) {
    ssize_t count;
    do count = read(descriptor, block, kCopyBlock);
    while (count < 0 && errno == EINTR);
    return count;
}

int copyContent(const char *source, const char *destination, mode_t mode) {
    const DescriptorHandle from(open(source, O_RDONLY | O_CLOEXEC));
    if (from < 0) return -1;
    unlink(destination);
    const DescriptorHandle to(open(destination, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (to < 0) return -1;
    char block[kCopyBlock];
    for (;;) {
        const ssize_t length = readBlock(from, block);
        if (length <= 0) return length < 0 ? -1 : 0;
        if (my_writeAll(to, block, static_cast<size_t>(length)) != 0) return -1;
    }
}

int copyTree(const char *source, const char *destination);

int copyDirectory(const char *source, const char *destination, mode_t mode, bool exists) {
    if (exists) return forEachChild(source, destination, copyTree) < 0 ? -1 : 0;
    // The owner needs full access until the content is there, whatever the source's mode.
    const mode_t mask = umask(0);
    const int made = mkdir(destination, (mode & ~mask) | S_IRWXU);
    umask(mask);
    if (made != 0 || forEachChild(source, destination, copyTree) < 0) return -1;
    return chmod(destination, mode & ~mask);
}

// Copies natively. -1 when anything in the tree is neither a directory nor a regular file.
int copyTree(const char *source, const char *destination) {
    struct stat from;
    struct stat to;
    if (lstat(source, &from) != 0) return -1;
    const bool exists = lstat(destination, &to) == 0;
    if (!exists && errno != ENOENT) return -1;

    if (S_ISDIR(from.st_mode)) {
        if (exists && !S_ISDIR(to.st_mode)) return -1;
        if (copyDirectory(source, destination, from.st_mode & 07777, exists) != 0) return -1;
    } else if (!S_ISREG(from.st_mode) || copyContent(source, destination, from.st_mode & 07777) != 0) {
        return -1;
    }
    const utimbuf times = {from.st_atime, from.st_mtime};
    utime(destination, &times);
    // Only root may change the owner. The mode comes last because chown clears the set-user-ID bits.
    ignored(chown(destination, from.st_uid, from.st_gid));
    chmod(destination, from.st_mode & 07777);
    return 0;
}

int removeTree(const char *path, const char *) {
    struct stat status;
    if (lstat(path, &status) != 0) return -1;
    if (!S_ISDIR(status.st_mode)) return unlink(path);
    const int result = forEachChild(path, nullptr, removeTree);
    if (result == kUnreadable) return 0;
    return result == 0 ? rmdir(path) : -1;
}

// An argument with a '*' stays unquoted so that the shell expands it.
const char *quoteFor(const char *path) { return strchr(path, '*') != nullptr ? "" : "\""; }

void runOnTwo(const char *command, const char *source, const char *destination) {
    const char *const quoteSource = quoteFor(source);
    const char *const quoteDestination = quoteFor(destination);
    my_system("%s %s%s%s %s%s%s", command, quoteSource, source, quoteSource, quoteDestination, destination,
              quoteDestination);
}

}  // namespace

my_proc *my_findproc(const char *name) { return findProcesses(name, false); }

void my_freeproc(my_proc *chain) {
    while (chain != nullptr) {
        my_proc *const next = chain->next;
        free(chain);
        chain = next;
    }
}

int my_procisrun(const char *name) {
    my_proc *const found = findProcesses(name, true);
    const int pid = found != nullptr ? found->pid : -1;
    my_freeproc(found);
    return pid;
}

void my_killproc(const char *name, int signal) { killExcept(name, signal, 0); }

void my_killproc_others(const char *name, int signal) { killExcept(name, signal, getpid()); }

void my_killproc_retry(const char *name, uint32_t tag, int signal) {
    my_proc *const chain = my_findproc(name);
    int failures = 0;
    for (const my_proc *process = chain; process != nullptr; process = process->next) {
        if (process->tag != tag) continue;
        while (kill(process->pid, signal) != 0) {
            usleep(kKillPause);
            if (++failures >= kKillFailures) break;
        }
    }
    my_freeproc(chain);
}

char *concat_path_file(const char *directory, const char *name) {
    const size_t length = strlen(directory);
    const bool separated = length > 0 && directory[length - 1] == '/';
    return xasprintf("%s%s%s", directory, separated ? "" : "/", name + strspn(name, "/"));
}

int my_writeAll(int descriptor, const char *data, size_t length) {
    while (length > 0) {
        const ssize_t written = write(descriptor, data, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return -1;  // treat 0 as an error: retrying could loop for ever
        data += written;
        length -= static_cast<size_t>(written);
    }
    return 0;
}

void my_cp(const char *source, const char *destination) {
    if (source == nullptr || destination == nullptr) return;
    if (copyTree(source, destination) != 0) runOnTwo("/bin/cp -af", source, destination);
}

void my_mv(const char *source, const char *destination) {
    if (source == nullptr || destination == nullptr) return;
    if (rename(source, destination) != 0) runOnTwo("/bin/mv -f", source, destination);
}

void my_rm(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *const path = xvasprintf(format, arguments);
    va_end(arguments);
    if (path == nullptr) return;
    if (removeTree(path, nullptr) != 0) {
        const char *const quote = quoteFor(path);
        my_system("/bin/rm -rf %s%s%s", quote, path, quote);
    }
    free(path);
}
