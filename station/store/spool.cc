#include "station/store/spool.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>

#include "station/store/database.h"

namespace station {
namespace {

namespace fs = std::filesystem;

// Blocks that the file has from the start: what boards in work still write when the disk is full.
constexpr off_t kReserve = off_t(8) << 20;

[[noreturn]] void fail(const fs::path &path, const char *what) {
    throw StoreError(fmt::format("cannot {} {}: {}", what, path.string(), std::strerror(errno)));
}

std::string newName() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}.spool", random(), random());
}

}  // namespace

// The lock ends with the process, however that ends. No file is ever removed: who has the lock has the file's name,
// too.
Spool::Spool(const fs::path &path)
    : path_(path), file_(::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {
    if (file_ < 0) fail(path, "open");
    mine_ = ::flock(file_, LOCK_EX | LOCK_NB) == 0;
    if (mine_) endTornLine();
    if (mine_) reserve();
}

Spool::~Spool() { ::close(file_); }

// What a power cut has left of a line must not swallow the next one.
void Spool::endTornLine() const {
    char last = '\n';
    const off_t end = ::lseek(file_, 0, SEEK_END);
    if (end > 0 && ::pread(file_, &last, 1, end - 1) == 1 && last != '\n') (void)!::write(file_, "\n", 1);
}

// Best effort: there are file systems that cannot.
void Spool::reserve() const { (void)::fallocate(file_, FALLOC_FL_KEEP_SIZE, 0, kReserve); }

std::vector<std::string> Spool::lines(off_t &end) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> lines;
    end = ::lseek(file_, 0, SEEK_END);
    if (end == 0) return lines;
    std::ifstream file(path_);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

void Spool::append(const std::vector<std::string> &lines) {
    const std::lock_guard lock(mutex_);
    std::string bytes;
    for (const std::string &line : lines) bytes += line + "\n";
    const off_t before = ::lseek(file_, 0, SEEK_END);
    const ssize_t written = ::write(file_, bytes.data(), bytes.size());
    if (written == ssize_t(bytes.size()) && ::fdatasync(file_) == 0) return;
    const int reason = written >= 0 && written < ssize_t(bytes.size()) ? ENOSPC : errno;
    (void)!::ftruncate(file_, before);
    errno = reason;
    fail(path_, "keep records in");
}

void Spool::clear(off_t end) {
    const std::lock_guard lock(mutex_);
    if (end == 0 || ::lseek(file_, 0, SEEK_END) != end) return;
    if (::ftruncate(file_, 0) != 0 || ::fdatasync(file_) != 0) fail(path_, "empty");
    reserve();
}

std::vector<std::unique_ptr<Spool>> takeSpools(const fs::path &folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    std::vector<std::unique_ptr<Spool>> spools;
    for (const auto &entry : fs::directory_iterator(folder, error)) {
        if (entry.path().extension() != ".spool") continue;
        auto spool = std::make_unique<Spool>(entry.path());
        if (spool->mine()) spools.push_back(std::move(spool));
    }
    if (spools.empty()) spools.push_back(std::make_unique<Spool>(folder / newName()));
    return spools;
}

}  // namespace station
