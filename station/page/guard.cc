#include "station/page/guard.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <strings.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "station/base/descriptor.h"
#include "station/run/record_json.h"

namespace station {
namespace {

// Rate limit: after a wrong token, an address can try one per second.
constexpr std::chrono::seconds kBetweenGuesses{1};
constexpr std::chrono::minutes kRemembered{10};

// Compares without regard to case, as the names of hosts and types are written.
bool same(const std::string &a, const std::string &b) { return strcasecmp(a.c_str(), b.c_str()) == 0; }

}  // namespace

bool isLoopback(const std::string &address) { return address.starts_with("127."); }

PageReply refused(int status, const std::string &error, std::map<std::string, std::string> headers) {
    return {status, "application/json", dump({{"error", error}}), std::move(headers)};
}

Guard::Guard(uint16_t port, const std::string &token, std::function<void(const std::string &)> tell)
    : port_(port), expected_("Bearer " + token), tell_(std::move(tell)) {}

std::optional<PageReply> Guard::refusal(const Route *route, const RequestHead &head) {
    if (!isOurs(head)) return refused(403, fmt::format("this page is at http://{}/ only", hostOf(head.local)));
    if (route == nullptr) return refused(404, "there is nothing at " + head.path);
    const bool changes = route->kind == RouteKind::kChange;
    const bool fits = changes ? head.method == "POST" : head.method == "GET" || head.method == "HEAD";
    const std::string allowed = changes ? "POST" : "GET, HEAD";
    if (!fits) return refused(405, fmt::format("{} takes {}", head.path, allowed), {{"Allow", allowed}});
    if (head.body > kLongestBody) return refused(413, fmt::format("a body has at most {} bytes", kLongestBody));
    // Browsers send this type to another site only when that allows it, which this page does not.
    if (changes && strncasecmp(head.type.c_str(), "application/json", strlen("application/json")) != 0)
        return refused(415, "expected application/json");
    return changes && !isLoopback(head.peer) ? checkToken(head) : std::nullopt;
}

// Rejects cross-origin requests and DNS rebinding: the page has its own names only.
bool Guard::isOurs(const RequestHead &head) const {
    const std::string machine = isLoopback(head.local) ? "localhost" : hostName();
    return (same(head.host, hostOf(head.local)) || same(head.host, hostOf(machine))) &&
           (head.origin.empty() || same(head.origin, "http://" + head.host));
}

std::string Guard::hostOf(const std::string &name) const {
    return port_ == 80 ? name : fmt::format("{}:{}", name, port_);
}

std::optional<PageReply> Guard::checkToken(const RequestHead &head) {
    const auto now = std::chrono::steady_clock::now();
    if (head.authorization.empty()) return refused(401, "the token of the line's file is needed");
    std::erase_if(guesses_, [&](const auto &one) { return now > one.second.last + kRemembered; });
    const auto past = guesses_.find(head.peer);
    if (past != guesses_.end() && now < past->second.last + kBetweenGuesses)
        return refused(429, "The last token was wrong. Wait a second, then try again.", {{"Retry-After", "1"}});
    const bool right = head.authorization.size() == expected_.size() &&  // the comparison takes constant time
                       CRYPTO_memcmp(head.authorization.data(), expected_.data(), expected_.size()) == 0;
    if (right) return std::nullopt;
    Guesses &guesses = guesses_[head.peer];
    guesses.last = now;
    if (++guesses.wrong == guesses.told) {
        guesses.told *= 10;
        tell_(fmt::format("{} sent the page a wrong token ({} in all). If nobody mistyped it there, find out who uses"
                          " that machine.",
                          head.peer, guesses.wrong));
    }
    return refused(401, "The token is wrong. It stands in the line's file.");
}

}  // namespace station
