#pragma once
// Decides which requests are answered, and which of them may change something.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "station/page/reply.h"

namespace station {

// A request with only the size of its body. A header that is missing is empty.
struct RequestHead {
    std::string method, path;
    std::string local, peer;  // IPv4 addresses: this machine's, to which the client connected; the client's
    std::string host, origin, type, authorization;
    size_t body = 0;  // bytes
};

constexpr size_t kLongestBody = 16384;

// Returns true for 127.0.0.0/8, which is this machine.
bool isLoopback(const std::string &address);

// Belongs to one thread.
class Guard {
public:
    // `port` is the page's. `token`: what a request from another machine must carry to change something; empty: no
    // other machine may. Calls `tell` at an address's first, 10th, 100th, ... wrong token.
    Guard(uint16_t port, const std::string &token, std::function<void(const std::string &trouble)> tell);

    // Returns the reply that refuses the request; nothing when the request may go to its route. `route` is null when no
    // route has the request's path.
    std::optional<PageReply> refusal(const Route *route, const RequestHead &head);

private:
    struct Guesses {
        size_t wrong = 0, told = 1;
        std::chrono::steady_clock::time_point last{};
    };

    bool isOurs(const RequestHead &head) const;
    std::string hostOf(const std::string &name) const;
    std::optional<PageReply> checkToken(const RequestHead &head);

    const uint16_t port_;
    const std::string expected_;
    const std::function<void(const std::string &)> tell_;
    std::map<std::string, Guesses> guesses_;  // by the client's address
};

}  // namespace station
