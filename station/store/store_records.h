#pragma once
// The records of a line in a store.

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "station/run/records.h"
#include "station/store/writer.h"

namespace station {

// Every failure is a RecordsError.
class StoreRecords : public Records {
public:
    // `store`: a file of SQLite or postgresql://...; `spool`: a folder of this machine; `beside`: what else is recorded
    // to, after the store. A store that is away is no error.
    StoreRecords(const std::string &store, const std::filesystem::path &spool, std::unique_ptr<Records> beside);

    std::string away() override;
    void tell(const std::function<void(const std::string &)> &trouble) override;
    void begins(const RunRecord &run) override;
    std::string elsewhere(const RunRecord &run) override;
    std::vector<std::string> bind(const std::string &pool, const RunRecord &run, int count) override;
    void stepEnded(const RunRecord &run, size_t step) override;
    void ends(const RunRecord &run) override;

private:
    Statements runOf(const RunRecord &run, const std::string &verdict);
    std::string failedStep(const RunRecord &run);
    void asUnit(const RunRecord &run, const std::function<void(Database &, const std::string &serial)> &work);

    bool isNews(const std::string &pool, int64_t left);
    void say(const std::string &trouble);
    void sayWarnings();

    const std::unique_ptr<Records> beside_;
    std::mutex mutex_;                                        // of what follows
    std::map<std::string, std::vector<std::string>> titles_;  // of a run's steps, before their variables are filled in
    std::map<std::string, std::string> named_;                // the unit that the store knows a run by
    std::map<std::string, int64_t> told_;                     // what was left of a pool when it was last said
    std::chrono::steady_clock::time_point nextLook_{};        // at the pools
    std::function<void(const std::string &)> trouble_;
    std::vector<std::string> unsaid_;  // while nobody listened
    Writer writer_;
};

// Where the spool of a store is, if nobody says otherwise: beside a file, else in the working directory.
std::filesystem::path defaultSpool(const std::string &store);

}  // namespace station
