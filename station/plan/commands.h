#pragma once
// What a board makes of the commands, as far as a plan must heed it: which announce a payload, how arguments look, what
// becomes of the session. docs/protocol.md says all of it.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace station {

// What a command means for the steps behind it.
enum class Role { kPlain, kAddress, kPing, kReport, kReset, kWait, kReboot, kEnd };

// A command as a step is about to send it.
struct Command {
    std::string_view text;
    bool complete = true;             // else it is the start of the text, up to the first {name}
    std::optional<uint64_t> payload;  // bytes that follow it
    bool bare = false;                // not filled up to a frame
};

// Why the board would be spoiled, or not understand it; empty for no reason.
std::string faultOf(const Command &command);

Role roleOf(std::string_view command);

// How many addresses the board programs, as its reply to the command says; 0: the reply does not say. 1 for commands
// that program none.
int addressesIn(std::string_view command, std::string_view reply);

// The number of the MTD partition that it writes, 0 for none that is known.
int partitionOf(std::string_view command);

// Takes longer than a moment, and must not be cut short.
bool takesLong(std::string_view command);

}  // namespace station
