#pragma once
// How a board is discovered, for "discover" and "run".

#include <CLI/CLI.hpp>

#include <cmath>
#include <string>

#include "station/wire/discovery.h"

namespace station {

struct Discovery {
    std::string link;  // where a board is discovered; empty: not at all
    std::string board = "FF:FF:FF:FF:FF:FF";
    size_t size = 60;  // bytes of the frame
    double wait = 60;  // seconds for a board to answer, and for all to connect

    Milliseconds limit() const { return Milliseconds(std::llround(wait * 1000)); }
};

// Adds the options; `link` is the name of that which says where. Returns this one.
CLI::Option *addDiscovery(CLI::App *command, const char *link, Discovery &discovery);

// Returns the line that says which board answered. Throws SessionError, and ListenError for a link that is unavailable.
std::string discover(const Discovery &discovery);

}  // namespace station
