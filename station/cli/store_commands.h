#pragma once
// The subcommands that ask a store or fill its pools.

#include <CLI/CLI.hpp>

namespace station {

// pool, show, runs, summary, export. Each runs when the command line is parsed, and throws std::runtime_error.
void addStoreCommands(CLI::App &app);

}  // namespace station
