#pragma once
// The subcommands, a file each, but for those that ask or change a store.

#include <CLI/CLI.hpp>

namespace station {

// Each adds its subcommand, which runs while the command line is parsed, leaves its exit code in `status`, and throws
// what it finds wrong.
void addRun(CLI::App &app, int &status);    // a plan on one batch of boards
void addServe(CLI::App &app, int &status);  // a line, for ever
void addDiscover(CLI::App &app);            // finds a board that waits in the mode "qconly"
void addCheck(CLI::App &app, int &status);  // finds what is wrong with a plan, or a line and this machine
void addInit(CLI::App &app);                // makes what a line needs
void addStoreCommands(CLI::App &app, int &status);

}  // namespace station
