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

// What is wrong with an argument; empty for nothing.
using ArgumentFault = std::string (*)(std::string_view argument, const Command &command);

std::string size(std::string_view argument, const Command &command) {
    const std::string bytes = std::to_string(command.payload.value_or(0));
    if (command.payload > kLargestPayload) return fmt::format("the board takes at most {} bytes", kLargestPayload);
    if (argument == bytes) return {};
    return fmt::format("announces \"{}\", but its payload has {} bytes: write {{size}}", argument, bytes);
}

// The one character behind SHELL may be any.
std::string sizeOfScript(std::string_view argument, const Command &command) {
    return size(argument.substr(std::min<size_t>(argument.size(), 1)), command);
}

// Without colons the board reads a decimal number, and takes its low 48 bits.
std::string address(std::string_view argument, const Command &) {
    Mac number = 0;
    const std::string text(argument);
    const auto withColons = text.find(':') == 2 ? parseMac(text) : std::nullopt;
    if (!withColons && (!RE2::FullMatch(text, "([0-9]{1,15})", &number) || number >> 48 != 0)) {
        return fmt::format("\"{}\" is no MAC address: six pairs of hexadecimal digits with colons, or a decimal number",
                           argument);
    }
    if (isIndividual(withColons.value_or(number))) return {};
    return fmt::format("no board may have the MAC address \"{}\": it is zero, or a group's", argument);
}

std::string country(std::string_view argument, const Command &) {
    if (RE2::FullMatch(std::string(argument), "[0-9A-Z]{2}")) return {};
    return fmt::format("\"{}\" is no country code: two capital letters or digits", argument);
}

struct Row {
    std::string_view word;  // in the board's order: the first that the command begins with wins
    Role role = Role::kPlain;
    bool payload = false;
    bool takesLong = false;
    int partition = 0;
    ArgumentFault fault = nullptr;
};

constexpr Row kRows[] = {
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

const Row &rowOf(std::string_view command) {
    return *std::find_if(std::begin(kRows), std::end(kRows),
                         [&](const Row &row) { return command.starts_with(row.word); });
}

}  // namespace

std::string faultOf(const Command &command) {
    const Row &row = rowOf(command.text);
    if (command.complete && !command.bare && command.text.size() > kFrame) {
        return fmt::format("a command has at most {} bytes, this one {}", kFrame, command.text.size());
    }
    if (row.payload && !command.payload) return "the board would take this for an empty payload: it needs \"upload\"";
    if (!row.payload && command.payload && command.complete) {
        return "the board takes no payload behind this, and would run its bytes as commands";
    }
    return row.fault != nullptr && command.complete ? row.fault(command.text.substr(row.word.size()), command) : "";
}

Role roleOf(std::string_view command) { return rowOf(command).role; }
int addressesIn(std::string_view command, std::string_view reply) {
    const Row &row = rowOf(command);
    if (row.role != Role::kAddress) return 1;
    int count = 0;
    if (reply.starts_with(row.word)) std::from_chars(&reply[row.word.size()], reply.data() + reply.size(), count);
    return count;
}

int partitionOf(std::string_view command) { return rowOf(command).partition; }
bool takesLong(std::string_view command) { return rowOf(command).takesLong; }

}  // namespace station
