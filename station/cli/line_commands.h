#pragma once
// The subcommands that serve boards.

#include <CLI/CLI.hpp>

namespace station {

// "run": a plan on one batch of boards. "serve": a line, for ever. When the command line is parsed the one that is
// asked for runs, and leaves its exit code in `status`. Throws what it finds wrong.
void addLineCommands(CLI::App &app, int &status);

}  // namespace station
