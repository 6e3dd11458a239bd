#pragma once
// The records of a line in a store.

#include <filesystem>
#include <string>
#include <vector>

#include "station/line/records.h"
#include "station/store/writer.h"

namespace station {

// Every failure is a RecordsError.
class StoreRecords : public Records {
public:
    // `store`: a file of SQLite or postgresql://...; `spool`: a folder of this machine; `trouble` is told, from any
    // thread, what a person should look at. A store that is away is no error.
    StoreRecords(const std::string &store, const std::filesystem::path &spool, Writer::Trouble trouble);

    std::string away() override { return writer_.away(); }
    void begins(const RunRecord &run) override;
    std::vector<std::string> bind(const std::string &pool, const RunRecord &run, int count) override;
    void stepEnded(const RunRecord &run, size_t step) override;
    void ends(const RunRecord &run) override;

private:
    Statements runOf(const RunRecord &run, const std::string &verdict) const;

    const Writer::Trouble trouble_;
    Writer writer_;
};

// Where the spool of a store is, if nobody says otherwise: beside a file, else in the working directory.
std::filesystem::path defaultSpool(const std::string &store);

}  // namespace station
