#pragma once
// The board's commands, as far as a plan must know them: which ones announce a payload, what their arguments are, what
// they do to the session. docs/protocol.md has all of it.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace station {

// The effect of a command on the steps after it.
enum class Role { kPlain, kAddress, kPing, kReport, kReset, kWait, kReboot, kEnd };

// A command as a step is about to send it.
struct Command {
    std::string_view text;
    bool complete = true;             // false: `text` is only the beginning, up to the first {name}
    std::optional<uint64_t> payload;  // size of the payload in bytes, if it has one
    bool bare = false;                // not padded to a frame
};

// Returns why the command would spoil the board or not be understood; empty when it is all right.
std::string faultOf(const Command &command);

Role roleOf(std::string_view command);

// Returns how many addresses the board programs, as its reply to the command says; 0 when the reply does not say it, 1
// for commands that program none.
int addressesIn(std::string_view command, std::string_view reply);

// Returns the number of the MTD partition that the command writes; 0 when it writes none that is known.
int partitionOf(std::string_view command);

// Returns true when the command takes long and must not be cut short, as flashing must not.
bool takesLong(std::string_view command);

}  // namespace station
