#pragma once
// The records of runs that have ended and that the store could not take yet, on this machine's disk. Several processes
// may share the folder; each has a key, under which the store knows it too.
//
//     Spool spool("/var/lib/qcstation/spool", say);
//     spool.reserve(run.id);                   // before the board's first command
//     spool.keep(run);                         // the store is away: on the disk when this returns
//     for (const RunRecord &late : spool.kept()) { save(database, late); spool.forget(late.id); }
//
// | file           | content                                                                                |
// |----------------|----------------------------------------------------------------------------------------|
// | KEY.spool      | nothing; its lock is held by the process whose key it is, for as long as that lives     |
// | KEY-ID.room    | blocks that are reserved for the record of a run in work                               |
// | KEY-ID.json    | the record of a run, as in a result file                                               |
// | KEY-ID.refused | what cannot be read, or what the store refuses; `qcstation store replay` tries it again |

#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "station/base/mutex.h"
#include "station/run/record.h"

namespace station {

// Every call may come from any thread, and throws RecordsError when the disk does not do what it should.
class Spool {
public:
    using Say = std::function<void(const std::string &)>;

    // Makes the folder if needed, and takes over every key in it that no living process holds; makes a key when there
    // is none. `say` is told of files that are set aside.
    Spool(std::filesystem::path folder, Say say);
    ~Spool();
    Spool(const Spool &) = delete;
    Spool &operator=(const Spool &) = delete;

    std::string key() const;  // of this process
    // All that this process answers for: its own key and those that dead processes have left.
    std::set<std::string> keys() const;
    // Gives a key up, since another machine holds it, too. After the last one the process has a new one.
    void surrender(const std::string &key);

    // Sets blocks aside for the record of the run, so that keep() works on a full disk. Nothing, when they are there.
    void reserve(const std::string &id);
    // Keeps the record durably, instead of one of the same run.
    void keep(const RunRecord &run);
    // Gives back what is kept and reserved for the run.
    void forget(const std::string &id);
    // Keeps the record as one that the store refuses. Returns the file.
    std::filesystem::path refuse(const RunRecord &run);

    // Returns why no more can be kept: the folder is gone, read-only or full. Empty: it can. Writes nothing.
    std::string away() const;
    // Returns the records that wait; needs no disk when there is none. What cannot be read is set aside as refused, and
    // said.
    std::vector<RunRecord> kept();

private:
    std::filesystem::path pathOf(const std::string &id, const char *extension) const;
    void lockNew() REQUIRES(mutex_);
    void adopt(const std::filesystem::path &path) REQUIRES(mutex_);
    void setAside(const std::filesystem::path &path, const std::string &why);

    const std::filesystem::path folder_;
    const Say say_;
    mutable Mutex mutex_;
    std::map<std::string, int> locks_ GUARDED_BY(mutex_);            // descriptors by key
    std::string key_ GUARDED_BY(mutex_);                             // of locks_, this process's own
    std::map<std::string, std::string> waiting_ GUARDED_BY(mutex_);  // file names without extension, by the run's ID
};

// Plays the records of the folder that were refused again. `take` throws what is wrong with one, which stays; the
// others are removed. Returns how many were taken.
size_t replay(const std::filesystem::path &folder, const std::function<void(const RunRecord &)> &take,
              const Spool::Say &say);

}  // namespace station
