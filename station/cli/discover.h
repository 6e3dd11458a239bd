#pragma once
// Discovery and its options, which "discover" and "run" share.

#include <CLI/CLI.hpp>

#include <cmath>
#include <string>

#include "station/wire/discovery.h"

namespace station {

struct Discovery {
    std::string link;  // an interface or udp:LOCAL:REMOTE; empty: no discovery
    std::string board = "FF:FF:FF:FF:FF:FF";
    size_t size = 60;  // of the frame, in bytes
    double wait = 60;  // seconds: until a board answers; in "run", until all have connected

    Milliseconds limit() const { return Milliseconds(std::llround(wait * 1000)); }
};

// Adds the options. `link` is the name of the one that fills in Discovery::link; returns that one.
CLI::Option *addDiscovery(CLI::App *command, const char *link, Discovery &discovery);

// Discovers a board, and returns a line of text that says which one answered. Throws SessionError when none does,
// ListenError when the link is unavailable.
std::string discover(const Discovery &discovery);

}  // namespace station
