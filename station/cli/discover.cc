#include "station/cli/discover.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <memory>

#include "station/cli/commands.h"
#include "station/cli/options.h"
#include "station/wire/listener.h"

namespace station {
namespace {

CLI::Validator matching(const char *expression, const char *kind) {
    return {[=](const std::string &text) {
                return re2::RE2::FullMatch(text, expression) ? "" : fmt::format("\"{}\" is not {}", text, kind);
            },
            ""};
}

std::unique_ptr<FrameLink> open(const std::string &link) try {
    return openLink(link);
} catch (const SessionError &error) {
    throw ListenError(error.what());
}

}  // namespace

CLI::Option *addDiscovery(CLI::App *command, const char *link, Discovery &discovery) {
    command->add_option("--board", discovery.board, "The board's MAC address, or broadcast")
        ->check(kMac)
        ->capture_default_str();
    command->add_option("--size", discovery.size, "Bytes of the discovery frame")
        ->check(CLI::Range(kShortestRequest, kLongestRequest))
        ->capture_default_str();
    command->add_option("--wait", discovery.wait, "Seconds to wait for the boards")
        ->check(matching("[0-9.]+", "a number of seconds"))
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    return command->add_option(link, discovery.link, "Discover a board on this network interface, or udp:LOCAL:REMOTE")
        ->check(matching("[^:/]+|udp:[0-9]{1,5}:[0-9]{1,5}", "a network interface or udp:LOCAL:REMOTE"));
}

std::string discover(const Discovery &discovery) {
    const auto link = open(discovery.link);
    const Mac board = discover(*link, parseMac(discovery.board).value(), discovery.size, discovery.limit());
    return fmt::format("board {} answered three times\n", formatMac(board));
}

void addDiscover(CLI::App &app) {
    CLI::App *const command = app.add_subcommand("discover", "Discover a board that waits in the mode qconly");
    const auto discovery = std::make_shared<Discovery>();
    addDiscovery(command, "link", *discovery)->required();
    command->callback([discovery] { fmt::print("{}", discover(*discovery)); });
}

}  // namespace station
