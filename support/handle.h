#pragma once
// The two scope handles, which close what they own on every path out of a scope, and moveAboveStandard.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

// Owns an open stream, or none (null). Closes it with fclose.
struct FileHandle {
    explicit FileHandle(FILE *opened) : stream(opened) {}
    ~FileHandle() { close(); }
    FileHandle(const FileHandle &) = delete;
    FileHandle &operator=(const FileHandle &) = delete;

    operator FILE *() const { return stream; }

    // Closes the stream now. Returns fclose's result, or 0 when nothing is open.
    int close() {
        FILE *const closing = stream;
        stream = nullptr;
        return closing != nullptr ? fclose(closing) : 0;
    }

    FILE *stream;
};

// Owns an open file descriptor, or none (negative).
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

// Moves a descriptor above the standard three and sets close-on-exec, so that child processes never see it. Returns the
// new descriptor; the old one, unchanged, when no other is free.
inline int moveAboveStandard(int descriptor) {
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) return descriptor;
    ::close(descriptor);
    return moved;
}
