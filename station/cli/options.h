#pragma once
// Options that several subcommands have.

#include <CLI/CLI.hpp>

#include <filesystem>
#include <string>

namespace station {

// A time as parseTime() takes it, which becomes the store's text; a MAC address as parseMac() takes it.
extern const CLI::Validator kTime, kMac;

// Which store is meant, and the station's spool.
struct StoreChoice {
    std::string store, line;
    std::filesystem::path spool;

    // Fills in what is not said: --store, the store of --line, QCSTATION_STORE, and last the store of the service's
    // line, in this order. Throws PlanError when none of them names one.
    void resolve();
};

// Adds --store and --line.
void addStore(CLI::App *command, StoreChoice &choice);

}  // namespace station
