#pragma once
// The subcommands. Each has a source file of its own; those that query or change a store share one.

#include <CLI/CLI.hpp>

namespace station {

// Each function adds a subcommand. The subcommand runs while the command line is parsed, leaves its exit code in
// `status`, and throws when it fails.
void addRun(CLI::App &app, int &status);    // a plan on one batch of boards
void addServe(CLI::App &app, int &status);  // a line, for ever
void addDiscover(CLI::App &app);            // finds a board that waits in the mode "qconly"
void addCheck(CLI::App &app, int &status);  // finds every fault of a plan, or of a line and this machine
void addInit(CLI::App &app);                // makes what a line needs
void addStoreCommands(CLI::App &app, int &status);

}  // namespace station
