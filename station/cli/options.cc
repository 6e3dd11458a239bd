#include "station/cli/options.h"

#include <fmt/format.h>

#include <cstdlib>

#include "station/base/mac.h"
#include "station/base/time.h"
#include "station/cli/service.h"
#include "station/line/line_file.h"
#include "station/store/store_records.h"

namespace station {

const CLI::Validator kTime(
    [](std::string &text) {
        const auto time = parseTime(text);
        if (time) text = isoTime(*time);
        return time ? "" : fmt::format("\"{}\" is not a time: {}", text, kTimeForms);
    },
    "TIME");

const CLI::Validator kMac(
    [](std::string &text) { return parseMac(text) ? "" : fmt::format("\"{}\" is not a MAC address", text); }, "MAC");

void StoreChoice::resolve() {
    const char *const environment = std::getenv("QCSTATION_STORE");
    if (store.empty() && line.empty() && environment != nullptr) store = environment;
    if (store.empty()) {
        const std::string path = line.empty() ? kServiceLine : line;
        if (line.empty() && !std::filesystem::exists(path)) {
            throw PlanError(
                fmt::format("qcstation: there is no {}: say with --store or --line which store is meant", path));
        }
        const LineFile file = readLine(path);
        if (file.store.empty()) throw PlanError(path + ": the line has no store: say with --store which one is meant");
        store = file.store;
        if (spool.empty()) spool = file.spool;
    }
    if (spool.empty()) spool = defaultSpool(store);
}

void addStore(CLI::App *command, StoreChoice &choice) {
    command->add_option("--store", choice.store, "The store: a file of SQLite, or postgresql://...");
    command->add_option("--line", choice.line,
                        fmt::format("The line whose store it is; else QCSTATION_STORE, else {}", kServiceLine));
}

}  // namespace station
