#pragma once
// The line's file: where the station listens, its places, its plan, its hooks, where the records go. docs/line-file.md
// describes it for people who write one.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "station/line/line.h"
#include "station/wire/listener.h"

namespace station {

// The settings of the line's page.
struct PageSettings {
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    std::string token;  // lets browsers on other machines make changes; empty: none may
    // The starts of the shifts, in minutes of the local day, ascending.
    std::vector<int> shifts = {6 * 60, 14 * 60, 22 * 60};

    int target = 0;  // units per hour; 0: none
    // The language of the operator's page: "de", "en", "zh", or a file of words, NAME.json.
    std::string language = "en";

    bool operator==(const PageSettings &) const = default;
};

// The part of a line's file that a running station does not change.
struct Site {
    std::string address = kDefaultAddress;
    uint16_t port = kDefaultPort;
    std::vector<Place> places;
    std::vector<std::string> cables;  // each place's interface; empty: addresses tell boards apart
    std::filesystem::path results;    // folder; empty: none
    std::string store;                // a database's file or URL; empty: none
    std::filesystem::path spool;      // folder for what the store cannot take yet; empty: the usual one
    std::optional<PageSettings> page;

    bool operator==(const Site &) const = default;
};

struct LineFile : Site, Job {
    std::filesystem::path planPath, planFiles;  // of loadPlan()

    bool sameStation(const LineFile &other) const { return Site::operator==(other); }
};

// Waits, at most five seconds for each, until the line's file and its plan have not changed for a second: an editor or
// a copy that still writes has left half a plan there, which can be one with fewer steps. Throws PlanError.
void awaitWriters(const std::filesystem::path &path);

// Returns true when the file is a line's rather than a plan.
bool isLineFile(const std::filesystem::path &path);

// Returns the names of a store's pools, from which a plan may take.
using AskPools = std::function<std::set<std::string>(const std::string &store)>;

// Reads a line's file, but not its plan. Paths in it are relative to its folder. Throws PlanError with every fault.
LineFile readLine(const std::filesystem::path &path);

// Reads a line's file as readLine() does, and its plan. Without `pools`, or without a store, the plan can take from no
// pool. Throws PlanError with every fault, and whatever `pools` throws.
LineFile loadLine(const std::filesystem::path &path, const AskPools &pools = {});

}  // namespace station
