#include "station/base/file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <stdexcept>

namespace station {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const char *what, const fs::path &path, std::string_view why = strerror(errno)) {
    throw std::runtime_error(fmt::format("cannot {} {}: {}", what, path.string(), why));
}

// Returns the file that the path leads to. Throws when something is there that a new file must not replace.
fs::path replaceable(fs::path path) {
    for (int links = 0; fs::is_symlink(fs::symlink_status(path)); ++links) {
        errno = ELOOP;
        if (links == 40) fail("write", path);  // as many as the kernel follows
        path = path.parent_path() / fs::read_symlink(path);
    }
    if (fs::exists(path) && !fs::is_regular_file(path)) fail("write", path, "it is there, and no regular file");
    return path;
}

}  // namespace

std::string readFile(const fs::path &path, uint64_t most) {
    std::error_code unknown;
    const fs::file_status there = fs::status(path, unknown);
    if (fs::is_directory(there)) fail("read", path, strerror(EISDIR));
    // A pipe or a device could keep the reader waiting, or have no end.
    if (fs::is_other(there)) fail("read", path, "not a regular file");
    std::ifstream file(path, std::ios::binary);
    if (!file) fail("read", path);
    std::string bytes, part(65536, '\0');
    while (file.read(part.data(), std::streamsize(part.size())), file.gcount() > 0) {
        bytes.append(part, 0, size_t(file.gcount()));
        if (bytes.size() > most) fail("read", path, fmt::format("it has more than {} bytes", most));
    }
    if (file.bad()) fail("read", path);
    return bytes;
}

std::optional<std::string> readFileIfThere(const fs::path &path, uint64_t most) {
    std::error_code error;
    if (fs::status(path, error).type() == fs::file_type::not_found) return std::nullopt;
    return readFile(path, most);
}

// Lets the kernel apply the process's umask to the mode. mkostemp() would make the file 0600, and the umask cannot be
// read without changing it for all threads.
NewFile::NewFile(const fs::path &path, mode_t mode) : path_(replaceable(path)), descriptor_(-1) {
    std::random_device random;
    do {
        temporary_ = fmt::format("{}.{:08x}", path_.string(), random());
        descriptor_ = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    } while (descriptor_ < 0 && errno == EEXIST);
    if (descriptor_ < 0) fail("write", path_);
}

NewFile::~NewFile() {
    if (descriptor_ < 0) return;
    close(descriptor_);
    unlink(temporary_.c_str());
}

void NewFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = TEMP_FAILURE_RETRY(::write(descriptor_, bytes.data(), bytes.size()));
        if (written < 0) fail("write", path_);
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

void NewFile::keep(bool durable) {
    if ((durable && fsync(descriptor_) != 0) || rename(temporary_.c_str(), path_.c_str()) != 0) fail("write", path_);
    close(descriptor_);
    descriptor_ = -1;
}

}  // namespace station
