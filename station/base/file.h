#pragma once
// Whole files, and those that are compiled into the program.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "station/base/descriptor.h"

namespace station {

// Returns the content of a regular file of at most `most` bytes. Throws std::runtime_error, which says why it cannot
// be read.
std::string readFile(const std::filesystem::path &path, uint64_t most);

// The same; returns nothing when there is no such file.
std::optional<std::string> readFileIfThere(const std::filesystem::path &path, uint64_t most);

// A new file that replaces `path` when keep() is called; until then, and without that call, the old file stays. Follows
// symbolic links, and replaces only a regular file: throws std::runtime_error for a device, a FIFO or a folder, and for
// every failure. The process's umask applies to the mode.
class NewFile {
public:
    explicit NewFile(const std::filesystem::path &path, mode_t mode = 0666);
    ~NewFile();

    void write(std::string_view bytes);
    // Returns the name that the file has until keep() is called, for a library that writes it.
    const std::string &temporary() const { return temporary_; }
    // Gives the file its name. `durable`: both content and name are on the disk when this returns.
    void keep(bool durable = true);

private:
    std::filesystem::path path_;
    std::string temporary_;
    Descriptor file_{-1};  // none: it has its name
};

// A file that cmake/embed.cmake compiles into the program.
struct StaticFile {
    std::string_view name, content;
};

}  // namespace station
