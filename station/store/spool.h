#pragma once
// Keeps, on this machine's disk, the records of ended runs that the store could not take yet. Several processes can
// share the folder; each has a key, by which the store knows it, too.
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

#include "station/base/descriptor.h"
#include "station/base/mutex.h"
#include "station/run/record.h"

namespace station {

// Every function may be called by any thread, and throws RecordsError when the disk fails.
class Spool {
public:
    using Say = std::function<void(const std::string &)>;

    // Makes the folder if needed. Takes over every key in it that no living process holds; makes a key when there is
    // none. Calls `say` for files that it sets aside.
    Spool(std::filesystem::path folder, Say say);

    std::string key() const;  // of this process
    // Returns the keys that this process is responsible for: its own, and those of dead processes.
    std::set<std::string> keys() const;
    // Gives up a key that another machine holds, too. If it was the last one, makes a new one.
    // Records that wait under the key stay and are written: they have ended, and both machines may write them.
    void surrender(const std::string &key);

    // Reserves disk blocks for the run's record, so that keep() works even on a full disk. May be repeated.
    void reserve(const std::string &id);
    // Writes the record durably, replacing one of the same run.
    void keep(const RunRecord &run);
    // Removes the run's record and its reserved blocks.
    void forget(const std::string &id);
    // Sets the record aside as one that the store refuses, for `qcstation store replay`, and reports it.
    void refuse(const RunRecord &run, const std::string &why);

    // Returns why no more can be kept: the folder is gone, read-only or full. Empty when it can. Writes nothing.
    std::string away() const;
    // Returns the waiting records; does not touch the disk when there are none. Sets aside, as refused, files that
    // are not records, and reports them. Throws std::runtime_error when a file cannot be read at present.
    std::vector<RunRecord> kept();

private:
    std::filesystem::path pathOf(const std::string &id, const char *extension) const;
    void lockNew() REQUIRES(mutex_);
    void adopt(const std::filesystem::path &path) REQUIRES(mutex_);

    const std::filesystem::path folder_;
    const Say say_;
    mutable Mutex mutex_;
    std::map<std::string, Descriptor> locks_ GUARDED_BY(mutex_);     // by key
    std::string key_ GUARDED_BY(mutex_);                             // of locks_, this process's own
    std::map<std::string, std::string> waiting_ GUARDED_BY(mutex_);  // file names without extension, by the run's ID
};

// Passes each refused record of the folder to `take`, in the order of their starts. Removes it, or keeps it when `take`
// throws. Returns how many were removed.
size_t replay(const std::filesystem::path &folder, const std::function<void(const RunRecord &)> &take,
              const Spool::Say &say);

}  // namespace station
