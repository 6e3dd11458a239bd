#include "station/base/file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <stdexcept>
#include <system_error>

namespace station {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const char *what, const fs::path &path, int error = errno) {
    throw std::system_error(error, std::generic_category(), fmt::format("cannot {} {}", what, path.string()));
}

[[noreturn]] void fail(const char *what, const fs::path &path, const std::string &why) {
    throw std::runtime_error(fmt::format("cannot {} {}: {}", what, path.string(), why));
}

// Opens a file for reading. A pipe or a device could keep the reader waiting, or have no end.
Descriptor openRegular(const fs::path &path) {
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (file.descriptor() < 0 || fstat(file.descriptor(), &status) != 0) fail("read", path);
    if (S_ISDIR(status.st_mode)) fail("read", path, EISDIR);
    if (!S_ISREG(status.st_mode)) fail("read", path, "not a regular file");
    return file;
}

// Returns the file that the path leads to. Throws when something is there that a new file must not replace.
fs::path replaceable(fs::path path) {
    for (int links = 0; fs::is_symlink(fs::symlink_status(path)); ++links) {
        if (links == 40) fail("write", path, ELOOP);  // as many as the kernel follows
        path = path.parent_path() / fs::read_symlink(path);
    }
    if (fs::exists(path) && !fs::is_regular_file(path)) fail("write", path, "it is there, and no regular file");
    return path;
}

}  // namespace

std::string readFile(const fs::path &path, uint64_t most) {
    const Descriptor file = openRegular(path);
    const std::string tooLong = fmt::format("it has more than {} bytes", most);
    if (fs::file_size(path) > most) fail("read", path, tooLong);
    std::string bytes;
    for (ssize_t length = 1; length > 0;) {  // to its end: it may have grown
        const size_t before = bytes.size();
        bytes.resize(before + 65536);
        length = TEMP_FAILURE_RETRY(read(file.descriptor(), bytes.data() + before, bytes.size() - before));
        if (length < 0) fail("read", path);
        bytes.resize(before + static_cast<size_t>(length));
        if (bytes.size() > most) fail("read", path, tooLong);
    }
    return bytes;
}

std::optional<std::string> readFileIfThere(const fs::path &path, uint64_t most) {
    std::error_code error;
    if (fs::status(path, error).type() == fs::file_type::not_found) return std::nullopt;
    return readFile(path, most);
}

// Lets the kernel apply the process's umask to the mode. mkostemp() would make the file 0600, and the umask cannot be
// read without changing it for all threads.
NewFile::NewFile(const fs::path &path, mode_t mode) : path_(replaceable(path)) {
    std::random_device random;
    do {
        temporary_ = fmt::format("{}.{:08x}", path_.string(), random());
        file_ = Descriptor(open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    } while (file_.descriptor() < 0 && errno == EEXIST);
    if (file_.descriptor() < 0) fail("write", path_);
}

NewFile::~NewFile() {
    if (file_.descriptor() >= 0) unlink(temporary_.c_str());
}

void NewFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = TEMP_FAILURE_RETRY(::write(file_.descriptor(), bytes.data(), bytes.size()));
        if (written < 0) fail("write", path_);
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

void NewFile::keep(bool durable) {
    if ((durable && fsync(file_.descriptor()) != 0) || rename(temporary_.c_str(), path_.c_str()) != 0)
        fail("write", path_);
    file_ = Descriptor(-1);
    if (!durable) return;
    const fs::path folder = path_.has_parent_path() ? path_.parent_path() : ".";
    const Descriptor names(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fsync(names.descriptor()) != 0) fail("write", folder);
}

}  // namespace station
