#include "station/page/exchange.h"

#include <fmt/format.h>
#include <httplib.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>

#include "station/base/machine.h"

namespace station {
namespace {

constexpr size_t kLongestHead = 8192, kLongestBody = 16384;
constexpr std::string_view kHeadEnd = "\r\n\r\n";

// A page is told what it may load, which is what this station serves and no more, and no browser keeps or guesses it.
const httplib::Headers kHeaders = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
     "form-action 'self'; frame-ancestors 'none'; base-uri 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

// Bytes of the body that the head announces.
size_t bodyOf(std::string_view head) {
    constexpr std::string_view kName = "\r\ncontent-length:";
    const std::string text = lower(head);
    size_t at = text.find(kName);
    if (at == std::string::npos) return 0;
    at = text.find_first_not_of(" \t", at + kName.size());
    size_t length = 0;
    const auto [end, error] = std::from_chars(text.data() + at, text.data() + text.size(), length);
    return error == std::errc::result_out_of_range ? std::numeric_limits<size_t>::max() : length;
}

// A connection that has sent all that it will: neither side of the exchange ever waits for a socket.
class Memory : public httplib::Stream {
public:
    explicit Memory(const std::string &request) : request_(request) {}

    bool is_readable() const override { return at_ < request_.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char *bytes, size_t size) override {
        const size_t length = request_.copy(bytes, size, at_);
        at_ += length;
        return static_cast<ssize_t>(length);
    }
    ssize_t write(const char *bytes, size_t size) override {
        reply.append(bytes, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string &, int &) const override {}
    void get_local_ip_and_port(std::string &, int &) const override {}
    socket_t socket() const override { return -1; }

    std::string reply;

private:
    const std::string &request_;
    size_t at_ = 0;
};

// Without telling by its time how much of it is right.
bool same(const std::string &a, const std::string &b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

void refuse(httplib::Response &response, int status, const std::string &why) {
    response.status = status;
    response.set_content(nlohmann::json{{"error", why}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                         "application/json");
}

}  // namespace

std::optional<size_t> sizeOfRequest(std::string_view received) {
    const size_t end = received.find(kHeadEnd);
    if (end == std::string_view::npos)
        return received.size() < kLongestHead ? std::nullopt : std::optional(received.size());
    const size_t head = end + kHeadEnd.size(), body = bodyOf(received.substr(0, head));
    if (head > kLongestHead || body > kLongestBody) return head;
    return received.size() < head + body ? std::nullopt : std::optional(head + body);
}

const Route *routeOf(const Routes &routes, std::string_view request) {
    const size_t start = request.substr(0, request.find('\r')).find(' ');
    if (start == std::string_view::npos) return nullptr;
    const std::string_view target = request.substr(start + 1);
    const auto route = routes.find(target.substr(0, target.find_first_of(" ?\r")));
    return route == routes.end() ? nullptr : &route->second;
}

bool isLoopback(const std::string &address) { return address.starts_with("127."); }

class Exchange::Http : private httplib::Server {
public:
    Http(const Routes &routes, uint16_t port, std::string token)
        : routes_(routes), port_(port), token_(std::move(token)), machine_(lower(hostName())) {
        set_default_headers(kHeaders);
        set_payload_max_length(kLongestBody);
        set_pre_routing_handler([this](const Request &request, Response &response) {
            return handle(request, response) ? HandlerResponse::Handled : HandlerResponse::Unhandled;
        });
        Post(".*", [this](const Request &request, Response &response) { reply(request, response); });
        set_exception_handler([](const Request &, Response &response, const std::exception_ptr &thrown) {
            try {
                std::rethrow_exception(thrown);
            } catch (const std::exception &error) {
                refuse(response, 500, error.what());
            }
        });
    }

    HttpReply answer(const std::string &request, const std::string &address) {
        address_ = address;
        streams_ = false;
        Memory memory(request);
        bool closes = false;
        const bool understood = process_request(memory, false, closes, nullptr);
        const bool whole = memory.reply.starts_with("HTTP/1.1 2");  // what is refused may not have been read to its end
        return {std::move(memory.reply), closes || !understood || !whole, streams_};
    }

private:
    using Request = httplib::Request;
    using Response = httplib::Response;

    // False: the request is in order, and its body is still to be read.
    bool handle(const Request &request, Response &response) {
        const auto route = routes_.find(request.path);
        const bool changes = route != routes_.end() && route->second.kind == RouteKind::kChange;
        if (!isOurs(request)) {
            refuse(response, 403, "this page is at " + origin(address_) + ", and nowhere else");
        } else if (route == routes_.end()) {
            refuse(response, 404, "there is nothing at " + request.path);
        } else if (changes ? request.method != "POST" : request.method != "GET" && request.method != "HEAD") {
            response.set_header("Allow", changes ? "POST" : "GET, HEAD");
            refuse(response, 405, "this is not what " + request.path + " is for");
        } else if (changes) {
            return !mayChange(request, response);
        } else {
            reply(request, response);
        }
        return true;
    }

    // A page of somebody else's, which the browser shows as well, may neither ask nor be led here by another name.
    bool isOurs(const Request &request) const {
        const std::string host = lower(request.get_header_value("Host"));
        const bool named = host == hostOf(address_) || host == hostOf(isLoopback(address_) ? "localhost" : machine_);
        if (!named || request.get_header_value_count("Host") != 1) return false;
        return !request.has_header("Origin") || lower(request.get_header_value("Origin")) == "http://" + host;
    }

    std::string hostOf(const std::string &name) const { return port_ == 80 ? name : fmt::format("{}:{}", name, port_); }
    std::string origin(const std::string &name) const { return "http://" + hostOf(name) + "/"; }

    // Says what is wrong if it may not.
    bool mayChange(const Request &request, Response &response) const {
        const std::string type = lower(request.get_header_value("Content-Type"));
        if (type != "application/json" && !type.starts_with("application/json;")) {
            refuse(response, 415, "application/json is expected");
        } else if (!isLoopback(address_) && !same(request.get_header_value("Authorization"), "Bearer " + token_)) {
            refuse(response, 401, "the token of the line's file is needed");
        } else {
            return true;
        }
        return false;
    }

    void reply(const Request &request, Response &response) {
        const Route &route = routes_.find(request.path)->second;
        if (route.kind == RouteKind::kStream) return stream(request, response);
        PageRequest asked{request.path, {}, request.body};
        for (const auto &[name, value] : request.params) asked.parameters.emplace(name, value);
        PageReply given = route.answer(asked);
        response.status = given.status;
        response.body = std::move(given.body);
        response.set_header("Content-Type", given.type);
    }

    // Without a length: its end is the connection's.
    void stream(const Request &request, Response &response) {
        streams_ = request.method == "GET";
        response.set_content_provider("text/event-stream", [](size_t, httplib::DataSink &) { return true; });
    }

    const Routes &routes_;
    const uint16_t port_;
    const std::string token_, machine_;
    std::string address_;  // of the exchange that goes on
    bool streams_ = false;
};

Exchange::Exchange(const Routes &routes, uint16_t port, std::string token)
    : http_(std::make_unique<Http>(routes, port, std::move(token))) {}

Exchange::~Exchange() = default;

HttpReply Exchange::answer(const std::string &request, const std::string &address) try {
    return http_->answer(request, address);
} catch (const std::exception &) {  // of the library's own, at a request that is none
    return {"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", true, false};
}

}  // namespace station
