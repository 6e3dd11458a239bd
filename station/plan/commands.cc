#include "station/plan/commands.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <charconv>
#include <iterator>

#include "station/base/mac.h"
#include "station/plan/payload.h"
#include "station/wire/session.h"

namespace station {
namespace {

using re2::RE2;

std::string size(std::string_view argument, const Command &command) {
    const std::string bytes = std::to_string(command.payload.value_or(0));
    if (command.payload > kLargestPayload) return fmt::format("the board takes at most {} bytes", kLargestPayload);
    if (argument == bytes) return {};
    return fmt::format("announces \"{}\", but its payload has {} bytes: write {{size}}", argument, bytes);
}

// The one character after SHELL may be any.
std::string sizeOfScript(std::string_view argument, const Command &command) {
    return size(argument.substr(std::min<size_t>(argument.size(), 1)), command);
}

// Without colons the board reads a decimal number, and takes its low 48 bits.
std::string address(std::string_view argument, const Command &) {
    Mac number = 0;
    const std::string text(argument);
    const auto withColons = text.find(':') == 2 ? parseMac(text) : std::nullopt;
    if (!withColons && (!RE2::FullMatch(text, "([0-9]{1,15})", &number) || number >> 48 != 0)) {
        return fmt::format("\"{}\" is not a MAC address, such as 02:00:00:00:00:FE or a decimal number", argument);
    }
    if (isIndividual(withColons.value_or(number))) return {};
    return fmt::format("no board may have the MAC address \"{}\": it is zero or a multicast address", argument);
}

std::string country(std::string_view argument, const Command &) {
    if (RE2::FullMatch(std::string(argument), "[0-9A-Z]{2}")) return {};
    return fmt::format("\"{}\" is not a country code: two capital letters or digits", argument);
}

// In the board's order: the first that the command begins with wins.
constexpr BoardCommand kCommands[] = {
    {"VERSION ", Role::kPlain, true, false, 0, size},
    {"FW IMAGE ", Role::kPlain, true, true, 0, size},
    {"FW KERNEL ", Role::kPlain, true, true, 2, size},
    {"FW ROOTFS ", Role::kPlain, true, true, 3, size},
    {"FW CONFIG ", Role::kPlain, true, true, 5, size},
    {"SHELL", Role::kPlain, true, false, 0, sizeOfScript},
    {"PING", Role::kPing},
    {"MAC ", Role::kAddress, false, false, 0, address},
    {"COUNTRY ", Role::kPlain, false, false, 0, country},
    {"FACTORY RESET", Role::kReset, false, true},
    {"WAITING", Role::kWait},
    {"REBOOT", Role::kReboot},
    {"INFO", Role::kReport},
    {"BYE", Role::kEnd},
    {""},
};

}  // namespace

const BoardCommand &boardCommand(std::string_view text) {
    return *std::ranges::find_if(kCommands, [&](const BoardCommand &row) { return text.starts_with(row.word); });
}

std::string faultOf(const Command &command) {
    const BoardCommand &row = boardCommand(command.text);
    if (command.complete && !command.bare && command.text.size() > kFrame) {
        return fmt::format("a command has at most {} bytes, this one {}", kFrame, command.text.size());
    }
    if (row.payload && !command.payload) return "the board would take this for an empty payload: it needs \"upload\"";
    if (!row.payload && command.payload && command.complete) {
        return "the board takes no payload after this, and would run its bytes as commands";
    }
    return row.faultOf != nullptr && command.complete ? row.faultOf(command.text.substr(row.word.size()), command) : "";
}

int addressesIn(std::string_view command, std::string_view reply) {
    const BoardCommand &row = boardCommand(command);
    if (row.role != Role::kAddress) return 1;
    int count = 0;
    if (reply.starts_with(row.word))
        std::from_chars(reply.data() + row.word.size(), reply.data() + reply.size(), count);
    return count;
}

}  // namespace station
