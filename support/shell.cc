#include "support/shell.h"

#include <fcntl.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned kRingSlots = 32;  // a power of two: the counter wraps with a mask
constexpr int kDefaultConnectSeconds = 60;

// Returns the line as it runs in debug mode; takes ownership of `line`. Intended: it is cut at the first '>' of the
// whole line, not at the one before "/dev/null". Callers append their redirection last. Without it, and without the '&'
// after it, the output can be captured.
char *withOutputShown(char *line) {
    const size_t kept = strcspn(line, ">");
    if (strstr(line, "/dev/null") == nullptr || line[kept] == '\0') return line;
    char *const shown = xasprintf("%.*s2>&1", static_cast<int>(kept), line);
    if (shown == nullptr) return line;
    free(line);
    return shown;
}

void runIntoLog(const char *line) {
    FILE *const output = popen(line, "r");
    if (output == nullptr) return;
    char piece[256];
    while (fgets(piece, sizeof piece, output) != nullptr) {
        // Intended: the last character, normally the newline, goes even when it is the end of a piece of a long line.
        const size_t length = strlen(piece);
        if (length > 0) piece[length - 1] = '\0';
        syslog(LOG_ALERT, "      msg: %s\n", piece);
    }
    pclose(output);
}

bool connectionEstablished(int socket, int timeout_seconds) {
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(socket, &writable);
    fd_set exceptional = writable;
    timeval limit = {timeout_seconds < 1 ? kDefaultConnectSeconds : timeout_seconds, 0};
    if (select(socket + 1, nullptr, &writable, &exceptional, &limit) < 1) return false;

    int pending = 0;
    socklen_t length = sizeof pending;
    if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &pending, &length) != 0) return false;
    if (pending != 0) errno = pending;
    return pending == 0;
}

}  // namespace

char *xvasprintf(const char *format, va_list arguments) {
    char *text = nullptr;
    return vasprintf(&text, format, arguments) < 0 ? nullptr : text;
}

char *xasprintf(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *const text = xvasprintf(format, arguments);
    va_end(arguments);
    return text;
}

char *M(const char *format, ...) {
    static char ring[kRingSlots][512];
    static unsigned slot;
    slot = (slot + 1) & (kRingSlots - 1);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(ring[slot], sizeof ring[slot], format, arguments);  // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);
    return ring[slot];
}

int my_system(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *line = xvasprintf(format, arguments);
    va_end(arguments);
    if (line == nullptr) return -1;

    int result = -1;
    if (access(kDebugSwitch, F_OK) == 0) {
        line = withOutputShown(line);
        syslog(LOG_ALERT, "%s\n", line);
        runIntoLog(line);
        // The result stays -1: in debug mode callers that act on success take their failure branch.
    } else {
        syslog(LOG_ALERT, "%s\n", line);
        result = system(line);
    }
    free(line);
    return result;
}

int my_connect_t(int socket, const sockaddr *address, socklen_t address_length, int timeout_seconds) {
    if (socket < 0 || socket >= FD_SETSIZE) {
        errno = EBADF;
        return -1;
    }
    fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
    if (connect(socket, address, address_length) != 0) {
        if (errno != EINPROGRESS || !connectionEstablished(socket, timeout_seconds)) return -1;
    }
    fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) & ~O_NONBLOCK);
    return 0;
}
