#pragma once
// Prints the results of queries: as tables, JSON or CSV.

#include <string>
#include <vector>

#include "station/store/database.h"

namespace station {

// Prints one table after the other, row by row, in bounded memory. For each table call begin(), row() per row, end().
class Printer {
public:
    // `format`: "table", "json" or "csv"; `excel`: CSV begins with a byte order mark; `several`: prints each table's
    // name.
    Printer(const std::string &format, bool excel, bool several) : format_(format), excel_(excel), several_(several) {}

    void begin(const std::string &name);
    void row(const Table &head, const std::vector<Value> &row);
    void end(const Table &head);
    void finish() const;                   // must be called after the last table
    size_t rows() const { return rows_; }  // of the present table

private:
    std::string csvStart(const Table &head) const;
    void flush(const Table &head);

    const std::string format_;
    const bool excel_, several_;
    size_t tables_ = 0, rows_ = 0;
    std::vector<size_t> widths_;
    std::vector<std::vector<Value>> waiting_;
};

}  // namespace station
