#pragma once
// The subcommands. Those that meet boards share a source file, and so do those that query or change a store.

#include <CLI/CLI.hpp>

namespace station {

// The exit statuses of the command, as docs/line-file.md and qcstation(1) list them.
enum ExitCode {
    kPassed = 0,
    kFailed = 1,        // a board failed, or never connected
    kWrongInput = 2,    // the command line, a plan, or a line's file
    kCannotListen = 3,  // the address, the port or an interface
    kCannotWrite = 4,   // results, or standard output
    kInterrupted = 5,   // stopped by a signal before all was done
};

// Each function adds subcommands. A subcommand runs while the command line is parsed, leaves its exit code in `status`,
// and throws when it fails.
void addRun(CLI::App &app, int &status);    // a plan on one batch of boards
void addServe(CLI::App &app, int &status);  // a line, for ever
void addDiscover(CLI::App &app);            // finds a board that waits in the mode "qconly"
void addCheck(CLI::App &app, int &status);  // finds every fault of a plan, or of a line and this machine
void addInit(CLI::App &app);                // makes what a line needs
void addStoreCommands(CLI::App &app, int &status);

}  // namespace station
