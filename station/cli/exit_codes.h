#pragma once

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

}  // namespace station
