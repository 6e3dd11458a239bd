#pragma once
// Prints the results of queries: as tables, JSON or CSV.

#include <functional>
#include <string>
#include <vector>

#include "station/store/database.h"

namespace station {

// Prints one table after the other, row by row, in bounded memory.
class Printer {
public:
    // `format`: "table", "json" or "csv"; `excel`: CSV begins with a byte order mark; `several`: prints each table's
    // name.
    Printer(const std::string &format, bool excel, bool several) : format_(format), excel_(excel), several_(several) {}

    // Prints the rows with which `each` calls its argument. `each` returns their head. Returns the number of rows.
    size_t print(const std::string &name, const std::function<Table(const Database::EachRow &)> &each);
    void finish() const;  // must be called after the last table

private:
    void flush(const Table &head);

    const std::string format_;
    const bool excel_, several_;
    size_t tables_ = 0;
    std::vector<size_t> widths_;
    std::vector<std::vector<Value>> waiting_;
};

}  // namespace station
