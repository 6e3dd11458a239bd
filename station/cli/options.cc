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
                fmt::format("qcstation: there is no {}: name the store with --store, or its line with --line", path));
        }
        const LineFile file = readLine(path);
        if (file.store.empty()) throw PlanError(path + ": the line has no store: name one with --store");
        store = file.store;
        if (spool.empty()) spool = file.spool;
    }
    if (spool.empty()) spool = defaultSpool(store);
}

void addStore(CLI::App *command, StoreChoice &choice) {
    command->add_option("--store", choice.store, "The store: an SQLite file, or postgresql://...");
    command->add_option(
        "--line", choice.line,
        fmt::format("Use the store of this line; by default that of QCSTATION_STORE or {}", kServiceLine));
}

}  // namespace station
