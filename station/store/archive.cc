#include "station/store/archive.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <vector>

#include "station/base/descriptor.h"
#include "station/base/digest.h"
#include "station/run/record_json.h"
#include "station/store/load.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr size_t kAtOnce = 100;  // runs that are removed in one transaction: stations wait for it

// A file that is on its way: under another name until it is whole.
class Part {
public:
    explicit Part(const fs::path &path) : path_(path), part_(path.string() + ".part") {
        if (fs::exists(path_)) throw Refusal(fmt::format("{} is there already: name a new file", path_.string()));
        fs::remove(part_);
    }
    ~Part() { ::unlink(part_.c_str()); }
    Part(const Part &) = delete;
    Part &operator=(const Part &) = delete;

    const std::string &name() const { return part_; }
    // Has the content on the disk, then the name.
    void keep() {
        sync(part_, O_RDONLY);
        fs::rename(part_, path_);
        sync(path_.has_parent_path() ? path_.parent_path() : ".", O_RDONLY | O_DIRECTORY);
    }

private:
    static void sync(const fs::path &path, int flags) {
        const Descriptor file(::open(path.c_str(), flags | O_CLOEXEC));
        if (::fsync(file.descriptor()) != 0) throw std::runtime_error(describeError("cannot write " + path.string()));
    }

    const fs::path path_;
    const std::string part_;
};

// Writes the records and returns the digest of their text.
std::string writeRecords(Database &database, const std::vector<std::string> &runs, const std::string &name) {
    Digest digest("SHA256");
    gzFile file = ::gzopen(name.c_str(), "wbe");
    bool written = file != nullptr;
    for (const std::string &run : runs) {
        const std::string line = dump(loadRun(database, run)) + "\n";
        digest.feed(line);
        written = written && ::gzwrite(file, line.data(), unsigned(line.size())) == int(line.size());
    }
    if (file == nullptr || ::gzclose(file) != Z_OK || !written) {
        throw std::runtime_error(describeError("cannot write " + name));
    }
    return digest.text();
}

std::string readBack(const std::string &name) {
    Digest digest("SHA256");
    gzFile file = ::gzopen(name.c_str(), "rbe");
    std::array<char, 1 << 16> part;
    int length = 0;
    while (file != nullptr && (length = ::gzread(file, part.data(), part.size())) > 0) {
        digest.feed({part.data(), size_t(length)});
    }
    const bool whole = file != nullptr && length == 0;
    return file != nullptr && ::gzclose(file) == Z_OK && whole ? digest.text() : "";
}

// A run whose record has come late meanwhile, so that its verdict is another one, stays.
void removeRun(Database &database, const std::string &run, const Value &verdict) {
    for (const char *const table : {"measurements", "steps"}) {
        const std::string sql = "DELETE FROM {} WHERE run = (SELECT id FROM runs WHERE run = $1 AND verdict = $2)";
        database.queue(fmt::format(fmt::runtime(sql), table), {run, verdict});
    }
    database.queue("DELETE FROM runs WHERE run = $1 AND verdict = $2", {run, verdict});
}

}  // namespace

size_t archiveRuns(Database &database, const std::string &before, const fs::path &path) {
    const Table found = database.ask(
        "SELECT run, verdict FROM runs WHERE started < $1 AND verdict <> 'running' ORDER BY started, id", {before});
    std::vector<std::string> runs;
    for (const auto &row : found.rows) runs.push_back(*row[0]);
    Part part(path);
    if (runs.empty()) return 0;
    const std::string digest = writeRecords(database, runs, part.name());
    if (readBack(part.name()) != digest) {
        throw std::runtime_error(fmt::format("{} reads back otherwise than it was written", part.name()));
    }
    part.keep();
    database.run("INSERT INTO archives (file, runs, since, until, made)"
                 " SELECT $1, $2, min(started), max(started), $3 FROM runs WHERE started < $4 AND verdict <> 'running'",
                 {fs::absolute(path).string(), number(runs.size()), isoTime(WallClock::now()), before});
    for (size_t i = 0; i < runs.size(); i += kAtOnce) {
        database.transact([&] {
            for (size_t j = i; j < std::min(i + kAtOnce, runs.size()); ++j)
                removeRun(database, runs[j], found.rows[j][1]);
        });
    }
    return runs.size();
}

void backUp(const std::string &store, const fs::path &path) {
    if (store.find("://") != std::string::npos) {
        throw Refusal("PostgreSQL is backed up by its own tool, while the line works: pg_dump --format=custom"
                      " --file=FILE DATABASE");
    }
    Part part(path);
    const Descriptor made(::open(part.name().c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0640));
    Database(store, Database::Missing::kIsAnError).run("VACUUM INTO $1", {part.name()});
    {
        Database copy(part.name(), Database::Missing::kIsIgnored);
        if (copy.ask("PRAGMA integrity_check").rows.at(0)[0] != "ok") throw StoreError("the copy is damaged");
        copy.ask("PRAGMA journal_mode = DELETE");  // all of it is in one file
    }
    part.keep();
}

}  // namespace station
