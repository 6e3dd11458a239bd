#pragma once
// The board's commands, as far as a plan must know them: which ones announce a payload, what their arguments are, what
// they do to the session. docs/protocol.md has all of it.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace station {

// A command as a step is about to send it.
struct Command {
    std::string_view text;
    bool complete = true;             // false: `text` is only the beginning, up to the first {name}
    std::optional<uint64_t> payload;  // size of the payload in bytes, if it has one
    bool bare = false;                // not padded to a frame
};

// Returns why the command would spoil the board or not be understood; empty when it is all right.
std::string faultOf(const Command &command);

// The effect of a command on the steps after it.
enum class Role { kPlain, kAddress, kPing, kReport, kReset, kWait, kReboot, kEnd };

// The commands that begin with a word: their role and their payload.
struct BoardCommand {
    std::string_view word;
    Role role = Role::kPlain;
    bool payload = false;    // bytes follow
    bool takesLong = false;  // it must not be cut short, as flashing must not
    int partition = 0;       // number of the MTD partition that it writes; 0: none that is known
    // Returns what is wrong with the argument; empty: nothing.
    std::string (*faultOf)(std::string_view argument, const Command &command) = nullptr;
};
const BoardCommand &boardCommand(std::string_view text);

// Returns how many addresses the board programs, as its reply to the command says; 0 when the reply does not say it, 1
// for commands that program none.
int addressesIn(std::string_view command, std::string_view reply);

}  // namespace station
