#include "station/store/claim.h"

#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "station/base/text.h"
#include "station/run/record_json.h"
#include "station/store/sql.h"

namespace station {
namespace {

using Rows = std::vector<std::vector<Value>>;
using ByUnit = std::map<std::string, Rows>;  // rows by their first column, a serial number

ByUnit byUnit(Table table) {
    ByUnit all;
    for (auto &row : table.rows) all[*row[0]].push_back(std::move(row));
    return all;
}

// Returns the history from the unit's runs that count, the last one first.
UnitHistory historyOf(const Rows &runs, const RunRecord &run) {
    UnitHistory history;
    for (const auto &row : runs) {
        if (row[1] != run.plan) continue;
        if (history.where.empty()) {
            history.when = parseIsoTime(row[3].value_or("")).value_or(run.start);
            history.where = nameOf(Place{wholeNumber<int>(*row[4]).value_or(0), *row[5]});
            if (*row[6] != run.station.name) history.where += " of the station " + *row[6];
        }
        if (row[2] == "passed") break;
        ++history.failed;
    }
    return history;
}

// Returns why the run cannot have its unit; empty when it can. The rows are those of claims.sql.
std::string refusalOf(const Rows &unit, const RunRecord &run) {
    const Value product = text(productOf(run));
    for (const auto &row : unit) {
        if (row[2])
            return fmt::format("the unit {} is in work at place {} of the station {}", run.unit, *row[2], *row[3]);
        if (product && row[1] && row[1] != product) {
            return fmt::format("the serial number {} is that of a unit of the product {}, and this one is a {}:"
                               " check the label. Products that count alike need the product in their serial"
                               " numbers",
                               run.unit, *row[1], *product);
        }
    }
    return {};
}

}  // namespace

std::string wasSeen(const Database &database, std::chrono::seconds ago) {
    return "s.seen > " + database.timeBefore(ago);
}

std::string productOf(const RunRecord &run) {
    const auto product = run.variables.find("product");
    return product == run.variables.end() ? "" : product->second;
}

Givens claim(Database &database, const Changes &changes) {
    std::map<Change *, std::string> claims;  // with the units' serial numbers as the store has them
    std::set<std::string> locks;
    Json all = Json::array(), named = all;
    Givens givens;
    for (const auto &change : changes) {
        if (!change->claims()) continue;
        const std::string &unit = claims[change.get()] = *text(change->run->unit);
        locks.insert("unit " + unit);
        all.push_back(unit);
        change->given.count > 0 ? givens.push_back(&change->given) : named.push_back(unit);
    }
    if (claims.empty()) return {};
    database.lock(locks);
    ByUnit runs;
    if (!named.empty()) {
        database.queue(sqlOf(database.shared(), "histories"), {dump(named)},
                       [&](Table found) { runs = byUnit(std::move(found)); });
    }
    if (!givens.empty()) askWhatUnitsHave(database, givens);
    const std::string sql = sqlOf(database.shared(), "claims", {{"seen", wasSeen(database, kSilence)}});
    ByUnit units = byUnit(database.ask(sql, {dump(all), claims.begin()->first->run->station.key}));
    for (const auto &[change, unit] : claims) {
        change->refused = refusalOf(units[unit], *change->run);
        change->history = historyOf(runs[unit], *change->run);
        if (!change->refused.empty()) std::erase(givens, &change->given);
    }
    return givens;
}

}  // namespace station
