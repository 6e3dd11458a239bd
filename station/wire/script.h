#pragma once
// Scripts that the board runs with the command SHELL. Its reply is only an echo of the command, so the station wraps
// the script: the board sends exit status and output over a second connection.

#include <map>
#include <string>

#include "station/wire/session.h"

namespace station {

// Bytes of a script's output that are kept: enough for a board's logs, and few enough for a record.
constexpr size_t kLongestOutput = 262144;

struct ScriptResult {
    int status = -1;
    std::string output;  // standard output and standard error
    uint64_t cut = 0;    // bytes of it that followed and were dropped
};

// Receives the result of a script that has ended: its status as a decimal number, a line end, and the output until the
// connection ends. Throws SessionError when that is not complete at the deadline.
ScriptResult receiveResult(Session &&connection, Clock::time_point deadline);

// Lets the board run a script, and returns its result. `script` is the content of any executable file; the shell runs
// one without an interpreter line. It finds each variable NAME in its environment as QC_NAME. Drops a result that comes
// from another address than the board's. Throws SessionError when the session fails or no result comes in time.
ScriptResult runScript(Session &session, const std::string &script, Clock::time_point deadline,
                       const std::map<std::string, std::string> &variables = {}, const Progress &progress = {});

// Returns a script that prints the MD5 digest of the first `size` bytes of an MTD partition, and on a second line the
// number of bytes after them that are not 0xFF.
std::string digestScript(int partition, uint64_t size);

}  // namespace station
