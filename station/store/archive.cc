#include "station/store/archive.h"

#include <fmt/format.h>
#include <zlib.h>

#include <array>
#include <cerrno>
#include <functional>
#include <memory>
#include <system_error>
#include <vector>

#include "station/base/digest.h"
#include "station/base/file.h"
#include "station/run/record_json.h"
#include "station/store/load.h"
#include "station/store/save.h"
#include "station/store/sql.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr size_t kAtOnce = 100;  // runs that are removed in one transaction: stations wait for it

[[noreturn]] void fail(const std::string &name) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + name);
}

fs::path unused(const fs::path &path) {
    if (!fs::exists(path)) return path;
    throw Refusal(fmt::format("{} is there already: name a new file", path.string()));
}

// A text file, compressed with gzip.
class Lines {
public:
    Lines(const std::string &name, const char *mode) : name_(name), file_(::gzopen(name.c_str(), mode)) {
        if (!file_) fail(name_);
    }
    void write(const std::string &line) {
        if (::gzwrite(file_.get(), line.data(), unsigned(line.size())) != int(line.size())) fail(name_);
    }
    void close() {
        if (::gzclose(file_.release()) != Z_OK) fail(name_);
    }
    // Calls `each` with each line, which ends with "\n".
    void read(const std::function<void(const std::string &)> &each) {
        std::array<char, 1 << 16> part;
        std::string line;
        while (::gzgets(file_.get(), part.data(), int(part.size())) != nullptr) {
            line += part.data();
            if (!line.ends_with('\n')) continue;
            each(line);
            line.clear();
        }
        close();
    }

private:
    struct Close {
        void operator()(gzFile file) const { ::gzclose(file); }
    };
    const std::string name_;
    std::unique_ptr<gzFile_s, Close> file_;
};

// Writes the records of the runs that started before this time, and reads them back. Returns how many there are.
size_t writeRecords(Database &database, const std::string &before, const std::string &name) {
    Digest written("SHA256"), read("SHA256");
    Lines lines(name, "wbe");
    size_t count = 0;
    eachName(database, {"", before}, [&](const std::string &run) {
        const std::string line = dump(loadRun(database, run)) + "\n";
        written.feed(line);
        lines.write(line);
        ++count;
    });
    lines.close();
    Lines(name, "rbe").read([&](const std::string &line) { read.feed(line); });
    if (read.text() == written.text()) return count;
    throw std::runtime_error(fmt::format("{} reads back otherwise than it was written", name));
}

}  // namespace

size_t archiveRuns(Database &database, const std::string &before, const fs::path &path) {
    NewFile file(unused(path), 0640);
    const size_t count = writeRecords(database, before, file.temporary());
    if (count == 0) return 0;
    file.keep();
    database.run(sqlOf(database.shared(), "archive_made"),
                 {fs::absolute(path).string(), number(count), isoTime(WallClock::now()), before});
    const std::vector<std::string> removal = statementsOf(database.shared(), "archive_remove");
    std::vector<RunRecord> some;
    const auto remove = [&] {
        database.transact([&] {
            for (const RunRecord &run : some) {
                for (const std::string &sql : removal) database.queue(sql, {run.id, verdictIn(run)});
            }
        });
        some.clear();
    };
    Lines(path, "rbe").read([&](const std::string &line) {
        some.push_back(parseRecord(line));
        if (some.size() == kAtOnce) remove();
    });
    remove();
    return count;
}

void backUp(const std::string &store, const fs::path &path) {
    if (store.find("://") != std::string::npos) {
        throw Refusal("PostgreSQL is backed up by its own tool, while the line works: pg_dump --format=custom"
                      " --file=FILE DATABASE");
    }
    NewFile file(unused(path), 0640);
    if (!fs::exists(store)) throw StoreError(fmt::format("the store {}: there is no such file", store));
    openStore(store, Database::Missing::kIsIgnored)->run("VACUUM INTO $1", {file.temporary()});
    {
        Database copy(file.temporary(), Database::Missing::kIsIgnored);
        if (copy.ask("PRAGMA integrity_check").rows.at(0)[0] != "ok") throw StoreError("the copy is damaged");
        copy.ask("PRAGMA journal_mode = DELETE");  // all of it is in one file
    }
    file.keep();
}

}  // namespace station
