#pragma once
// The two scope handles of the system: whatever path leaves a scope, what it opened is closed. And what stays open.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

// Owns an open stream, or none (null) when opening it failed. Closes it with fclose.
struct FileHandle {
    explicit FileHandle(FILE *opened) : stream(opened) {}
    ~FileHandle() { close(); }
    FileHandle(const FileHandle &) = delete;
    FileHandle &operator=(const FileHandle &) = delete;

    operator FILE *() const { return stream; }

    // Closes before the end of the scope. Returns fclose's result, 0 when nothing was open.
    int close() {
        FILE *const closing = stream;
        stream = nullptr;
        return closing != nullptr ? fclose(closing) : 0;
    }

    FILE *stream;
};

// Owns an open file descriptor, or none (negative) when opening it failed.
struct DescriptorHandle {
    explicit DescriptorHandle(int opened) : descriptor(opened) {}
    ~DescriptorHandle() {
        if (descriptor >= 0) ::close(descriptor);
    }
    DescriptorHandle(const DescriptorHandle &) = delete;
    DescriptorHandle &operator=(const DescriptorHandle &) = delete;

    operator int() const { return descriptor; }

    int descriptor;
};

// Moves an open descriptor above 2, where programs that are started look for nothing; they do not inherit it. Returns
// the descriptor it has now: the old one when there is no room.
inline int moveAboveStandard(int descriptor) {
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) return descriptor;
    ::close(descriptor);
    return moved;
}
