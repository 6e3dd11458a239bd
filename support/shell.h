#pragma once
// Formatting into short-lived and allocated texts, the shell runner, and a connect with a time limit.

#include <sys/socket.h>

// Existence of this file switches my_system to its debug mode.
constexpr char kDebugSwitch[] = "/var/debug";

// Formats into a newly allocated string, which the caller frees. Null when formatting or allocation fails.
[[gnu::format(printf, 1, 2)]] char *xasprintf(const char *format, ...);

// Formats into one of 32 static buffers of 512 bytes, used in turn; a longer text is cut to 511 characters.
// Never null. The text stays valid until 32 further calls. For one thread only.
[[gnu::format(printf, 1, 2)]] char *M(const char *format, ...);

// Formats a command line, logs it and runs it through the shell; blocks until it has ended.
// Returns the result of system(), or -1 when the line cannot be formatted.
// While "/var/debug" exists, a line that mentions "/dev/null" is cut at its first '>', what the command prints
// goes to the system log, and the result is always -1.
[[gnu::format(printf, 1, 2)]] int my_system(const char *format, ...);

// Connects within timeout_seconds (60 when below 1). `address` has `address_length` bytes.
// Returns 0, with the socket blocking; or -1 with errno saying why and the socket, if it is one, left non-blocking. A
// connect that is still under way at the time limit leaves errno at EINPROGRESS, and the kernel goes on with it.
int my_connect_t(int socket, const sockaddr *address, socklen_t address_length, int timeout_seconds);
