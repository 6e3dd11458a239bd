#pragma once
// Options that several subcommands share.

#include <CLI/CLI.hpp>

#include <filesystem>
#include <string>

namespace station {

// kTime accepts what parseTime() does, and replaces it by the store's form. kMac accepts what parseMac() does.
extern const CLI::Validator kTime, kMac;

// The store that a command uses, and the station's spool.
struct StoreChoice {
    std::string store, line;
    std::filesystem::path spool;

    // Fills in the store if --store did not: from --line, otherwise from QCSTATION_STORE, otherwise from the service's
    // line. Fills in the spool likewise. Throws PlanError when none of them names a store.
    void resolve();
};

// Adds --store and --line.
void addStore(CLI::App *command, StoreChoice &choice);

}  // namespace station
