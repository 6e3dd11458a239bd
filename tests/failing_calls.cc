// Makes calls of the C library fail on demand, and time run faster. Wraps the calls of the daemon's own code with the
// linker's --wrap. The environment controls it:
//
//   HURRY=N       time runs N times as fast, both for waits and on the clock
//   FAIL_CALL=C   the first call from the place C fails with EIO
//   LIST_CALLS=F  appends each calling place to the file F at its first call
//   LIST_WAITS=F  appends each wait, or the limit of a wait, to the file F, in microseconds

#include <dirent.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <set>
#include <type_traits>

namespace {

const int kHurry = getenv("HURRY") != nullptr ? atoi(getenv("HURRY")) : 1;

// Appends a line to the file unless `path` is null.
void list(const char *path, const std::string &line) {
    if (path != nullptr) std::ofstream(path, std::ios::app) << line << '\n';
}

// Returns whether this call must fail. A place is identified by the name of the function and the distance of the return
// address from here, which is the same in every process.
bool fails(const char *name, const void *place) {
    static const char *const wanted = getenv("FAIL_CALL"), *const listed = getenv("LIST_CALLS");
    static std::set<const void *> places;
    static bool ended = false;  // calls must not fail in code that runs at exit, such as the coverage counters
    static const int registered = atexit([] { ended = true; });
    if (registered != 0 || ended || (wanted == nullptr && listed == nullptr) || !places.insert(place).second)
        return false;
    const intptr_t distance = reinterpret_cast<intptr_t>(place) - reinterpret_cast<intptr_t>(&fails);
    const std::string call = std::string(name) + "@" + std::to_string(distance);
    list(listed, call);
    if (wanted == nullptr || call != wanted) return false;
    errno = EIO;
    return true;
}

int64_t sooner(int64_t microseconds) {
    list(getenv("LIST_WAITS"), std::to_string(microseconds));
    return microseconds / kHurry;
}

// Shortens a timeval or a timespec. The result is static.
template <typename Limit>
Limit *sooner(const Limit *limit) {
    static Limit shorter;
    constexpr int64_t kParts = std::is_same_v<Limit, timeval> ? 1 : 1000;  // per microsecond
    const auto [seconds, parts] = *limit;
    const int64_t wait = sooner(int64_t{seconds} * 1000000 + parts / kParts);
    shorter = {wait / 1000000, wait % 1000000 * kParts};
    return &shorter;
}

}  // namespace

#define CALL(result, failure, name, parameters, arguments)                                      \
    extern "C" result __real_##name parameters;                                                 \
    extern "C" result __wrap_##name parameters {                                                \
        return fails(#name, __builtin_return_address(0)) ? (failure) : __real_##name arguments; \
    }

// clang-format off
CALL(DIR *, nullptr, opendir, (const char *path), (path))
CALL(FILE *, nullptr, fopen, (const char *path, const char *mode), (path, mode))
CALL(FILE *, nullptr, popen, (const char *line, const char *mode), (line, mode))
CALL(char *, nullptr, fgets, (char *line, int size, FILE *file), (line, size, file))
CALL(char *, nullptr, strdup, (const char *text), (text))
CALL(int, -1, access, (const char *path, int mode), (path, mode))
CALL(int, -1, connect, (int s, const sockaddr *address, socklen_t size), (s, address, size))
CALL(int, -1, fcntl, (int file, int command, long value), (file, command, value))
CALL(int, -1, fork, (), ())
CALL(int, -1, fseek, (FILE *file, long offset, int from), (file, offset, from))
CALL(int, -1, getsockopt, (int s, int l, int o, void *value, socklen_t *size), (s, l, o, value, size))
CALL(int, -1, ioctl, (int file, unsigned long request, void *value), (file, request, value))
CALL(int, -1, kill, (pid_t process, int signal), (process, signal))
CALL(int, -1, open, (const char *path, int flags, mode_t mode), (path, flags, mode))
CALL(int, -1, pclose, (FILE *file), (file))
CALL(int, -1, select, (int count, fd_set *in, fd_set *out, fd_set *bad, timeval *t), (count, in, out, bad, sooner(t)))
CALL(int, -1, semget, (key_t key, int count, int flags), (key, count, flags))
CALL(int, -1, semop, (int id, sembuf *steps, size_t count), (id, steps, count))
CALL(int, -1, semtimedop, (int id, sembuf *steps, size_t count, const timespec *t), (id, steps, count, sooner(t)))
CALL(int, -1, shmget, (key_t key, size_t size, int flags), (key, size, flags))
CALL(int, -1, socket, (int family, int type, int protocol), (family, type, protocol))
CALL(int, -1, system, (const char *line), (line))
CALL(int, -1, vasprintf, (char **text, const char *format, va_list arguments), (text, format, arguments))
CALL(int, -1, truncate, (const char *path, off_t size), (path, size))
CALL(size_t, 0, fread, (void *data, size_t size, size_t count, FILE *file), (data, size, count, file))
CALL(size_t, 0, fwrite, (const void *data, size_t size, size_t count, FILE *file), (data, size, count, file))
CALL(ssize_t, -1, lseek, (int file, off_t offset, int from), (file, offset, from))
CALL(ssize_t, -1, pread, (int file, void *data, size_t size, off_t at), (file, data, size, at))
CALL(ssize_t, -1, pwrite, (int file, const void *data, size_t size, off_t at), (file, data, size, at))
CALL(ssize_t, -1, read, (int file, void *data, size_t size), (file, data, size))
CALL(ssize_t, -1, recv, (int s, void *data, size_t size, int flags), (s, data, size, flags))
CALL(ssize_t, -1, recvfrom, (int s, void *to, size_t n, int f, sockaddr *from, socklen_t *m), (s, to, n, f, from, m))
CALL(ssize_t, -1, send, (int s, const void *data, size_t size, int flags), (s, data, size, flags))
CALL(ssize_t, -1, sendto, (int s, const void *p, size_t n, int f, const sockaddr *to, socklen_t m), (s, p, n, f, to, m))
CALL(ssize_t, -1, write, (int file, const void *data, size_t size), (file, data, size))
CALL(void *, nullptr, calloc, (size_t count, size_t size), (count, size))
CALL(void *, nullptr, malloc, (size_t size), (size))
CALL(void *, reinterpret_cast<void *>(-1), shmat, (int id, const void *at, int flags), (id, at, flags))
// clang-format on

extern "C" int __real_clock_gettime(clockid_t clock, timespec *now);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *now) {
    const int result = __real_clock_gettime(clock, now);
    const int64_t time = (int64_t{now->tv_sec} * 1000000 + now->tv_nsec / 1000) * kHurry;
    *now = {time / 1000000, time % 1000000 * 1000};
    return result;
}

extern "C" unsigned __wrap_sleep(unsigned seconds) {
    usleep(static_cast<useconds_t>(sooner(int64_t{seconds} * 1000000)));
    return 0;
}

// The service closes its standard error, so the sanitizers report to a file.
extern "C" const char *__asan_default_options() { return "log_path=/var/sanitizer"; }
extern "C" const char *__ubsan_default_options() { return "log_path=/var/sanitizer"; }
