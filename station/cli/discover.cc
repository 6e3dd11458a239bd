#include "station/cli/discover.h"

#include <fmt/format.h>

#include <memory>

#include "station/cli/commands.h"

namespace station {

void addDiscovery(CLI::App *command, Discovery &discovery) {
    const CLI::Validator finite(
        [](const std::string &text) {
            return text.find_first_not_of("0123456789.") == std::string::npos ? "" : "not a number of seconds";
        },
        "SECONDS");
    command->add_option("--board", discovery.board, "The board's MAC address, or broadcast")->capture_default_str();
    command->add_option("--size", discovery.size, "Bytes of the discovery frame")
        ->check(CLI::Range(kShortestRequest, kLongestRequest))
        ->capture_default_str();
    command->add_option("--wait", discovery.wait, "Seconds to wait for the boards")
        ->check(finite)
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
}

std::string discover(const Discovery &discovery) {
    const auto link = openLink(discovery.link);
    const auto wanted = parseMac(discovery.board);
    if (!wanted) throw SessionError(fmt::format("\"{}\" is not a MAC address", discovery.board));
    const Mac board = discover(*link, *wanted, discovery.size, discovery.limit());
    return fmt::format("board {} answered three times\n", formatMac(board));
}

void addDiscover(CLI::App &app) {
    CLI::App *const command = app.add_subcommand("discover", "Discover a board that waits in the mode qconly");
    const auto discovery = std::make_shared<Discovery>();
    command->add_option("link", discovery->link, "A network interface, or udp:LOCAL:REMOTE")->required();
    addDiscovery(command, *discovery);
    command->callback([discovery] { fmt::print("{}", discover(*discovery)); });
}

}  // namespace station
