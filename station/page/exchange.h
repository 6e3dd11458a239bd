#pragma once
// One HTTP exchange, from the request's bytes to the reply's: who asks is checked here, and who answers is found.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "station/page/reply.h"

namespace station {

using Routes = std::map<std::string, Route, std::less<>>;

// Bytes of the first request in what was received, when it is whole, or larger than it may be; nothing: more must come.
std::optional<size_t> sizeOfRequest(std::string_view received);

// The route of a request's path; null: none, or the path is written in a way that browsers do not write ours.
const Route *routeOf(const Routes &routes, std::string_view request);

struct HttpReply {
    std::string bytes;
    bool closes = false;   // the connection, behind it
    bool streams = false;  // only its head: events follow
};

// Used by one thread.
class Exchange {
public:
    // `token`: what allows a change by somebody on another machine; empty: nothing does.
    Exchange(const Routes &routes, uint16_t port, std::string token);
    ~Exchange();

    // `address`: of this machine, which the browser has connected to.
    HttpReply answer(const std::string &request, const std::string &address);

private:
    class Http;
    std::unique_ptr<Http> http_;
};

// True for 127.0.0.0/8, which only this machine reaches.
bool isLoopback(const std::string &address);

}  // namespace station
