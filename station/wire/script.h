#pragma once
// Scripts that the board runs by the command SHELL, whose reply is but an echo of the command. The station wraps the
// script, so that the board sends what it printed and its exit status back over a second connection.

#include <filesystem>
#include <string>

#include "station/wire/session.h"

namespace station {

struct ScriptResult {
    int status = -1;
    std::string output;  // standard output and standard error
};

// Has the board run a script and returns its result. `script` may be any executable file's content; one without an
// interpreter line is run by the shell. Throws SessionError when the session fails or no result comes in time.
ScriptResult runScript(Session &session, const std::string &script, Clock::time_point deadline,
                       const Progress &progress = {});

// A script that prints the MD5 digest of the first `size` bytes of an MTD partition, and in a second line how many
// bytes behind them are not 0xFF.
std::string digestScript(int partition, uint64_t size);

}  // namespace station
