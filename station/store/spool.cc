#include "station/store/spool.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <utility>

#include "station/base/descriptor.h"
#include "station/base/file.h"
#include "station/run/record_json.h"
#include "station/run/results.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr off_t kRoom = 64 << 10;  // bytes that are reserved for a record; a longer one needs a disk that is not full

[[noreturn]] void fail(const fs::path &path, const char *what) {
    throw RecordsError(fmt::format("cannot {} {}: {}", what, path.string(), std::strerror(errno)));
}

Descriptor openFile(const fs::path &path, int flags) {
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0640));
    if (file.descriptor() < 0) fail(path, "open");
    return file;
}

void writeAll(int file, std::string_view bytes, const fs::path &path) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) fail(path, "keep a record in");
        bytes.remove_prefix(written < 0 ? 0 : size_t(written));
    }
}

// Makes the names of the folder's files durable.
void syncFolder(const fs::path &folder) {
    const Descriptor descriptor = openFile(folder, O_RDONLY | O_DIRECTORY);
    if (::fsync(descriptor.descriptor()) != 0) fail(folder, "write to");
}

void renameTo(const fs::path &from, const fs::path &to) {
    if (::rename(from.c_str(), to.c_str()) != 0) fail(to, "make");
}

// Returns the file's text; empty when there is no such file.
std::string textOf(const fs::path &path) { return readFileIfThere(path, 1 << 30).value_or(""); }

// Returns true for KEY.spool. Other files in the folder are not ours.
bool isKey(const fs::path &path) {
    const std::string key = path.stem();
    const bool digits = key.find_first_not_of("0123456789abcdef") == std::string::npos;
    return path.extension() == ".spool" && key.size() == 16 && digits;
}

std::string newKey() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
}

// Locks the file of a key; returns its descriptor, or -1 when another process has the lock. The lock ends with the
// process, however that ends. The file is never removed: otherwise two processes could lock two files of one name.
int lock(const fs::path &path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (file < 0) fail(path, "open");
    if (::flock(file, LOCK_EX | LOCK_NB) == 0) return file;
    ::close(file);
    return -1;
}

}  // namespace

Spool::Spool(fs::path folder, Say say) : folder_(std::move(folder)), say_(std::move(say)) {
    std::error_code error;
    fs::create_directories(folder_, error);
    for (const auto &entry : fs::directory_iterator(folder_, error)) {
        const int file = isKey(entry.path()) ? lock(entry.path()) : -1;
        if (file >= 0) locks_[entry.path().stem()] = file;
    }
    std::vector<fs::path> files;
    for (const auto &entry : fs::directory_iterator(folder_, error)) files.push_back(entry.path());
    for (const fs::path &file : files) adopt(file);
    if (locks_.empty()) lockNew();
    key_ = locks_.begin()->first;
}

Spool::~Spool() {
    for (const auto &[key, file] : locks_) ::close(file);
}

void Spool::lockNew() {
    const std::string key = newKey();
    locks_[key] = lock(folder_ / (key + ".spool"));
}

// Takes over a file of a key that this process has locked. An earlier version kept statements in the key's file.
void Spool::adopt(const fs::path &path) {
    const std::string stem = path.stem(), key = stem.substr(0, stem.find('-'));
    std::error_code error;
    if (!locks_.contains(key)) return;
    if (path.extension() == ".room") fs::remove(path, error);
    if (path.extension() == ".json") waiting_[stem.substr(stem.find('-') + 1)] = stem;
    if (path.extension() != ".spool" || fs::file_size(path, error) == 0) return;
    const fs::path old = folder_ / (key + "-statements");
    fs::copy_file(path, old, fs::copy_options::overwrite_existing, error);
    if (!error) fs::resize_file(path, 0, error);
    setAside(old, "an earlier version of this program kept it, which alone can write it to the store");
}

std::string Spool::key() const {
    const Lock guard(mutex_);
    return key_;
}

std::set<std::string> Spool::keys() const {
    const Lock guard(mutex_);
    std::set<std::string> keys;
    for (const auto &[key, file] : locks_) keys.insert(key);
    return keys;
}

void Spool::surrender(const std::string &key) {
    const Lock guard(mutex_);
    ::close(locks_.at(key));
    locks_.erase(key);
    if (locks_.empty()) lockNew();
    key_ = locks_.begin()->first;
}

fs::path Spool::pathOf(const std::string &id, const char *extension) const {
    const Lock guard(mutex_);
    const auto known = waiting_.find(id);
    return folder_ / ((known == waiting_.end() ? key_ + "-" + id : known->second) + extension);
}

void Spool::reserve(const std::string &id) {
    const fs::path path = pathOf(id, ".room");
    const Descriptor file = openFile(path, O_WRONLY | O_CREAT);
    if (::fallocate(file.descriptor(), FALLOC_FL_KEEP_SIZE, 0, kRoom) == 0 || errno == EOPNOTSUPP) return;
    const int reason = std::exchange(errno, 0);
    ::unlink(path.c_str());
    errno = reason;
    fail(path, "reserve room for a record in");
}

void Spool::keep(const RunRecord &run) {
    const fs::path room = pathOf(run.id, ".room"), path = pathOf(run.id, ".json");
    const std::string text = dump(run) + "\n";
    const Descriptor file = openFile(room, O_WRONLY | O_CREAT);
    writeAll(file.descriptor(), text, room);
    // This also frees the reserved blocks beyond the end.
    if (::ftruncate(file.descriptor(), off_t(text.size())) != 0 || ::fsync(file.descriptor()) != 0) {
        fail(room, "keep a record in");
    }
    renameTo(room, path);
    syncFolder(folder_);
    const Lock guard(mutex_);
    waiting_[run.id] = path.stem();
}

void Spool::forget(const std::string &id) {
    ::unlink(pathOf(id, ".room").c_str());
    ::unlink(pathOf(id, ".json").c_str());
    const Lock guard(mutex_);
    waiting_.erase(id);
}

fs::path Spool::refuse(const RunRecord &run) {
    keep(run);
    const fs::path path = pathOf(run.id, ".json");
    fs::path refused = path;
    renameTo(path, refused.replace_extension(".refused"));
    forget(run.id);
    return refused;
}

std::string Spool::away() const { return fullness(folder_); }

std::vector<RunRecord> Spool::kept() {
    std::map<std::string, std::string> waiting;
    {
        const Lock guard(mutex_);
        waiting = waiting_;
    }
    std::vector<RunRecord> records;
    for (const auto &[id, name] : waiting) {
        const fs::path path = folder_ / (name + ".json");
        const std::string text = textOf(path);
        try {
            records.push_back(parseRecord(text));
        } catch (const std::runtime_error &error) {
            setAside(path, error.what());
            const Lock guard(mutex_);
            waiting_.erase(id);
        }
    }
    return records;
}

void Spool::setAside(const fs::path &path, const std::string &why) {
    fs::path refused = path;
    std::error_code error;
    fs::rename(path, refused.replace_extension(".refused"), error);
    say_(fmt::format("{} cannot be read and is set aside: {}", refused.string(), why));
}

size_t replay(const fs::path &folder, const std::function<void(const RunRecord &)> &take, const Spool::Say &say) {
    std::vector<fs::path> files;
    for (const auto &entry : fs::directory_iterator(folder)) {
        if (entry.path().extension() == ".refused") files.push_back(entry.path());
    }
    size_t taken = 0;
    for (const fs::path &file : files) try {
            take(parseRecord(textOf(file)));
            fs::remove(file);
            ++taken;
        } catch (const std::runtime_error &error) {
            say(fmt::format("{}: {}", file.string(), error.what()));
        }
    return taken;
}

}  // namespace station
