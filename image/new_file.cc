#include "image/new_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace fwimage {
namespace {

[[noreturn]] void fail(const std::filesystem::path &path) {
    throw std::runtime_error(fmt::format("cannot write {}: {}", path.string(), strerror(errno)));
}

// The file that the path names in the end. Throws when something is there that a new file must not take the place of.
std::filesystem::path replaceable(std::filesystem::path path) {
    namespace fs = std::filesystem;
    for (int links = 0; fs::is_symlink(fs::symlink_status(path)); ++links) {
        errno = ELOOP;
        if (links == 40) fail(path);  // as many as the kernel follows
        path = path.parent_path() / fs::read_symlink(path);
    }
    if (fs::exists(path) && !fs::is_regular_file(path)) {
        throw std::runtime_error(fmt::format("cannot write {}: it is there, and no regular file", path.string()));
    }
    return path;
}

}  // namespace

NewFile::NewFile(const std::filesystem::path &path)
    : path_(replaceable(path)),
      temporary_(path_.string() + ".XXXXXX"),
      descriptor_(mkostemp(temporary_.data(), O_CLOEXEC)) {
    if (descriptor_ < 0) fail(path_);
}

NewFile::~NewFile() {
    if (descriptor_ < 0) return;
    close(descriptor_);
    unlink(temporary_.c_str());
}

void NewFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor_, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) fail(path_);
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

void NewFile::keep(bool durable) {
    const mode_t mask = umask(0);
    umask(mask);
    if (fchmod(descriptor_, 0666 & ~mask) != 0 || (durable && fsync(descriptor_) != 0) ||
        rename(temporary_.c_str(), path_.c_str()) != 0) {
        fail(path_);
    }
    close(descriptor_);
    descriptor_ = -1;
}

}  // namespace fwimage
