#include "station/store/spool.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>

#include "station/base/descriptor.h"
#include "station/base/file.h"
#include "station/run/record_json.h"
#include "station/run/results.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr off_t kRoom = 64 << 10;  // bytes that are reserved for a record; a longer one needs a disk that is not full

[[noreturn]] void fail(const fs::path &path, const char *what) {
    throw RecordsError(describeError(fmt::format("cannot {} {}", what, path.string())));
}

Descriptor openFile(const fs::path &path, int flags) {
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0640));
    if (file.descriptor() < 0) fail(path, "open");
    return file;
}

fs::path renamed(const fs::path &from, const char *extension) {
    fs::path to = from;
    if (::rename(from.c_str(), to.replace_extension(extension).c_str()) != 0) fail(to, "make");
    return to;
}

// Returns the file's text; empty when there is no such file.
std::string textOf(const fs::path &path) { return readFileIfThere(path, 1 << 30).value_or(""); }

// Returns true for KEY.spool. Other files in the folder are not ours.
bool isKey(const fs::path &path) {
    const std::string key = path.stem();
    const bool digits = key.find_first_not_of("0123456789abcdef") == std::string::npos;
    return path.extension() == ".spool" && key.size() == 16 && digits;
}

// Returns the ID of the run that a file KEY-ID.EXTENSION is about.
std::string idOf(const fs::path &path) {
    const std::string stem = path.stem();
    return stem.substr(stem.find('-') + 1);
}

std::string newKey() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
}

// Locks the file of a key; returns no descriptor when another process has the lock. The lock ends with the process,
// however that ends. The file is never removed: otherwise two processes could lock two files of one name.
Descriptor lock(const fs::path &path) {
    Descriptor file = openFile(path, O_RDWR | O_CREAT);
    return ::flock(file.descriptor(), LOCK_EX | LOCK_NB) == 0 ? std::move(file) : Descriptor(-1);
}

}  // namespace

Spool::Spool(fs::path folder, Say say) : folder_(std::move(folder)), say_(std::move(say)) {
    std::error_code error;
    fs::create_directories(folder_, error);
    for (const auto &entry : fs::directory_iterator(folder_, error)) {
        Descriptor file = isKey(entry.path()) ? lock(entry.path()) : Descriptor(-1);
        if (file.descriptor() >= 0) locks_.emplace(entry.path().stem(), std::move(file));
    }
    std::vector<fs::path> files;
    for (const auto &entry : fs::directory_iterator(folder_, error)) files.push_back(entry.path());
    for (const fs::path &file : files) adopt(file);
    if (locks_.empty()) lockNew();
    key_ = locks_.begin()->first;
}

void Spool::lockNew() {
    const std::string key = newKey();
    locks_.emplace(key, lock(folder_ / (key + ".spool")));
}

// Takes over a file of a key that this process has locked.
void Spool::adopt(const fs::path &path) {
    const std::string stem = path.stem(), key = stem.substr(0, stem.find('-'));
    std::error_code error;
    if (!locks_.contains(key)) return;
    if (path.extension() == ".room") fs::remove(path, error);
    if (path.extension() == ".json") waiting_[idOf(path)] = stem;
    if (path.extension() != ".spool" || fs::file_size(path, error) == 0) return;
    say_(path.string() +
         " holds runs that version 1.0 of this program kept, and which this version cannot read: look them"
         " up in the result files, then remove this file");
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
    const int error = ::posix_fallocate(file.descriptor(), 0, kRoom);
    if (error == 0) return;
    ::unlink(path.c_str());
    errno = error;
    fail(path, "reserve room for a record in");
}

void Spool::keep(const RunRecord &run) {
    const fs::path room = pathOf(run.id, ".room");
    const std::string text = dump(run) + "\n";
    const Descriptor file = openFile(room, O_WRONLY | O_CREAT);
    errno = ENOSPC;  // the only reason to write less than all, and then not set
    if (::write(file.descriptor(), text.data(), text.size()) != ssize_t(text.size()) ||
        ::ftruncate(file.descriptor(), off_t(text.size())) != 0 || ::fsync(file.descriptor()) != 0) {
        fail(room, "keep a record in");
    }
    const fs::path kept = renamed(room, ".json");
    if (::fsync(openFile(folder_, O_RDONLY | O_DIRECTORY).descriptor()) != 0) fail(folder_, "write to");
    const Lock guard(mutex_);
    waiting_[run.id] = kept.stem();
}

void Spool::forget(const std::string &id) {
    for (const char *const extension : {".room", ".json"}) ::unlink(pathOf(id, extension).c_str());
    const Lock guard(mutex_);
    waiting_.erase(id);
}

void Spool::refuse(const RunRecord &run, const std::string &why) {
    keep(run);
    const fs::path refused = renamed(pathOf(run.id, ".json"), ".refused");
    forget(run.id);
    say_(
        fmt::format("the store refuses the run {}: {}. Its record is kept in {}: mend what is wrong, then use qcstation"
                    " store replay",
                    run.id, why, refused.string()));
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
            say_(fmt::format("{} cannot be read and is set aside: {}", renamed(path, ".refused").string(),
                             error.what()));
            const Lock guard(mutex_);
            waiting_.erase(id);
        }
    }
    return records;
}

size_t replay(const fs::path &folder, const std::function<void(const RunRecord &)> &take, const Spool::Say &say) {
    std::vector<fs::path> files;
    for (const auto &entry : fs::directory_iterator(folder)) {
        if (entry.path().extension() == ".refused") files.push_back(entry.path());
    }
    std::ranges::sort(files, {}, [](const fs::path &file) { return idOf(file); });  // which begins with the start
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
