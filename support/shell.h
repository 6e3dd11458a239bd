#pragma once
// Formatting into short-lived and allocated texts, the shell runner, and a connect with a time limit.

#include <sys/socket.h>

#include <cstdarg>

// Existence of this file switches my_system to its debug mode.
constexpr char kDebugSwitch[] = "/var/debug";

// Formats into a newly allocated string, which the caller frees. Returns null when formatting or allocation fails.
[[gnu::format(printf, 1, 2)]] char *xasprintf(const char *format, ...);
[[gnu::format(printf, 1, 0)]] char *xvasprintf(const char *format, va_list arguments);

// Formats into one of 32 static buffers of 512 bytes, which are used in turn; a longer text is cut to 511 characters.
// Returns the buffer, never null. The text stays valid until 32 further calls. Not thread-safe.
[[gnu::format(printf, 1, 2)]] char *M(const char *format, ...);

// Formats a command line, logs it, runs it through the shell and waits for its end.
// Returns the result of system(), or -1 when the line cannot be formatted.
// While "/var/debug" exists, a line that mentions "/dev/null" is cut at its first '>', the output of the command goes
// to the system log, and the result is always -1.
[[gnu::format(printf, 1, 2)]] int my_system(const char *format, ...);

// Connects the socket to `address`, which has `address_length` bytes, within timeout_seconds (60 when below 1).
// Returns 0 with the socket blocking, or -1 with errno set and the socket non-blocking. After a timeout errno is
// EINPROGRESS, and the kernel goes on with the attempt.
int my_connect_t(int socket, const sockaddr *address, socklen_t address_length, int timeout_seconds);
