#pragma once
// Decides which requests are answered, and who may change something.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "station/page/reply.h"

namespace station {

// A request without its body. Headers that it does not have are empty.
struct RequestHead {
    std::string method, path;
    std::string local, peer;  // IPv4 addresses: the one of this machine that the client connected to, and the client's
    std::string host, origin, type, authorization;
};

// True for 127.0.0.0/8, which is this machine.
bool isLoopback(const std::string &address);

// Used by one thread.
class Guard {
public:
    // `token`: what a change from another machine needs; empty: no other machine may change anything. `tell` is called
    // when an address sends wrong tokens.
    Guard(uint16_t port, const std::string &token, std::function<void(const std::string &trouble)> tell);

    // Returns why the request is not answered, or nothing when it may go to its route. `route` is null when nothing has
    // the request's path.
    std::optional<PageReply> refusal(const Route *route, const RequestHead &head);

private:
    struct Guesses {
        size_t wrong = 0;
        std::chrono::steady_clock::time_point last{};
    };

    bool isOurs(const RequestHead &head) const;
    std::string hostOf(const std::string &name) const;
    std::optional<PageReply> checkToken(const RequestHead &head);

    const uint16_t port_;
    const std::string expected_, machine_;
    const std::function<void(const std::string &)> tell_;
    std::map<std::string, Guesses> guesses_;  // by the client's address
};

}  // namespace station
