#pragma once
// The records of a line: in a store, and in result files if there is a folder for them. The files are authoritative;
// the store is written from the same records, and after a crash both agree again at the next start.
//
//     StoreRecords records("line.db", "line.db-spool", std::make_unique<FileRecords>("results"));
//     records.begins(run);                                       // before the first command
//     run.variables["mac"] = records.bind("mac", run, 4).at(0);  // before it is sent
//     records.stepEnded(run, 0);
//     records.ends(run);                                         // before the verdict is shown
//
// What happens to a run:
//
// |                     | store up                   | store away                | store refuses     | results full   |
// |---------------------|----------------------------|---------------------------|-------------------|----------------|
// | no board yet        | boards are taken           | none is taken             | -                 | none is taken  |
// | it begins           | running in the store, room | the board waits           | the board waits   | the board      |
// |                     | in the spool, then file    |                           |                   | waits          |
// | its unit is named,  | unit, run and address in   | the step fails, nothing   | the step fails,   | as without     |
// | an address is bound | one transaction, then sent | is sent                   | nothing is sent   |                |
// | a step has ended    | file, then store soon      | file                      | with the end      | store          |
// | it ends             | file, then store           | file, then spool          | file, then it is  | store, file    |
// |                     |                            |                           | set aside, said   | when there is  |
// |                     |                            |                           |                   | room again     |
// | the verdict is      | at once                    | at once                   | at once           | at once        |
// | shown               |                            |                           |                   |                |
//
// When neither results, spool nor store takes the end of a run, the verdict is shown as not recorded, the record stays
// in memory, and no board is taken until one of them takes it. After a crash, the next process that has the spool's key
// settles the runs (mend.h): a run whose end is in any of the three has ended; every other one is interrupted.

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "station/base/mutex.h"
#include "station/run/results.h"
#include "station/store/spool.h"
#include "station/store/writer.h"

namespace station {

// Every failure is a RecordsError.
class StoreRecords : public Records {
public:
    // `store`: a file of SQLite or postgresql://...; `spool`: a folder of this machine; `files` may be null. A store
    // that is away is not an error.
    StoreRecords(const std::string &store, const std::filesystem::path &spool, std::unique_ptr<FileRecords> files);

    std::string away() override;
    void tell(const std::function<void(const std::string &)> &trouble) override;
    void begins(const RunRecord &begun) override;
    std::optional<UnitHistory> named(const RunRecord &run) override;
    std::vector<std::string> bind(const std::string &pool, const RunRecord &run, int count) override;
    AddressOwner ownerOf(const std::string &address, const RunRecord &run) override;
    void stepEnded(const RunRecord &ended, size_t step) override;
    void ends(const RunRecord &ended) override;

private:
    // In the writer's thread:
    void greet(Database &database, bool fresh, bool working);
    void holdKeys(Database &database);
    void introduce(Database &database);
    void heartbeat(Database &database);
    void warnOfPools(Database &database);

    std::shared_ptr<const RunRecord> mine(RunRecord run) const;
    std::shared_ptr<Change> claim(const RunRecord &run, const Given &given = {});
    bool persist(const std::shared_ptr<const RunRecord> &run, std::string &why);
    std::string retryUnkept(const std::function<void(const RunRecord &)> &take);
    bool isNews(const std::string &pool, int64_t left);
    void say(const std::string &trouble);
    Spool::Say sayer() {
        return [this](const std::string &trouble) { say(trouble); };
    }

    Mutex mutex_;                                             // of what follows
    std::map<std::string, int64_t> told_ GUARDED_BY(mutex_);  // what was left of a pool when it was last said
    std::vector<std::shared_ptr<const RunRecord>> unkept_ GUARDED_BY(mutex_);  // nothing has taken their ends
    std::function<void(const std::string &)> trouble_ GUARDED_BY(mutex_);
    std::vector<std::string> unsaid_ GUARDED_BY(mutex_);  // while nobody listened

    const std::string machine_;
    const std::unique_ptr<FileRecords> files_;
    Spool spool_;

    // Of the writer's thread alone.
    bool mended_ = false;
    Clock::time_point firstTry_ = Clock::time_point::max(), lastSeen_{}, nextLook_{};
    std::set<std::string> held_;  // keys that this connection holds

    Writer writer_;  // at the end: its thread uses the rest
};

// Returns where the spool of a store is, if nobody says otherwise: beside a file, else in the working directory.
std::filesystem::path defaultSpool(const std::string &store);

}  // namespace station
