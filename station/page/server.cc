#include "station/page/server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <stdexcept>
#include <utility>

namespace station {
namespace {

// Limits per address, and for all other machines together. This machine has as many of its own.
struct Limits {
    size_t ofAddress, ofAll;
};
constexpr Limits kConnections{32, 96}, kSlowReplies{6, 16};  // the latter may be large
constexpr size_t kSlowThreads = 2;
constexpr size_t kMemory = 16384;  // of a connection: a request's head has 8 kB of it at least
constexpr size_t kMostRead = 4 * kLongestBody;
constexpr std::chrono::seconds kForRequest{10};  // to arrive, from the connection or the last reply on
constexpr std::chrono::seconds kForReply{30};    // to be taken
constexpr std::chrono::seconds kForEvents{10};   // to be taken
constexpr std::chrono::hours kForEver{10000};
constexpr Milliseconds kBetweenNews{200};  // five times a second is live for people
constexpr int kNewsPerBeat = 10;           // every two seconds a page is told that its station lives
constexpr int kGivesWay = 10;

// A page may only load what this station serves. Browsers must neither store it nor guess its type.
constexpr std::pair<const char *, const char *> kHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
     "form-action 'self'; frame-ancestors 'none'; base-uri 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

// Returns the address of a client, which has come by IPv4.
std::string addressOf(const sockaddr *client) {
    return station::textOf(*reinterpret_cast<const sockaddr_in *>(client));
}

Listener listenFor(const PageSettings &settings) try {
    return {settings.address, settings.port};
} catch (const ListenError &error) {
    throw ListenError(fmt::format("page: {}", error.what()));
}

PageReply answerOf(const Route &route, const PageRequest &request) try {
    return route.answer(request);
} catch (const std::exception &error) {
    return refused(500, error.what());
}

PageReply openStream(const PageRequest &) { return {200, "text/event-stream"}; }

}  // namespace

// A connection, and what the library calls about it. Guarded by the server's mutex, except the last two members: they
// belong to the thread that works on the request.
struct PageServer::Client {
    PageServer *server;
    MHD_Connection *connection;
    int socket;
    std::string peer;
    Clock::time_point deadline = Clock::now() + kForRequest;
    bool suspended = false;        // the library leaves it alone until it is resumed
    const Route *route = nullptr;  // of a slow reply that is being made or taken, or of the stream; otherwise null
    std::string events = {};       // not taken yet
    uint64_t seen = 0;             // of the feed
    PageRequest request = {};
    std::optional<PageReply> reply = {};

    bool takes(RouteKind kind) const { return route != nullptr && route->kind == kind; }
    void suspend() {
        suspended = true;
        deadline = Clock::now() + kForEver;
        MHD_suspend_connection(connection);
    }
    void resume(std::chrono::seconds limit) {
        if (!std::exchange(suspended, false)) return;
        deadline = Clock::now() + limit;
        MHD_resume_connection(connection);
    }

    static MHD_Result admit(void *self, const sockaddr *peer, socklen_t) {
        auto &server = *static_cast<PageServer *>(self);
        const Lock lock(server.mutex_);
        return server.hasRoom(addressOf(peer), false) ? MHD_YES : MHD_NO;
    }

    static void changed(void *self, MHD_Connection *connection, void **, MHD_ConnectionNotificationCode code) {
        auto &server = *static_cast<PageServer *>(self);
        const auto *const peer = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr;
        const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        const Lock lock(server.mutex_);
        server.clients_.erase(connection);
        if (code == MHD_CONNECTION_NOTIFY_STARTED)
            server.clients_.emplace(connection, Client{&server, connection, socket, addressOf(peer)});
    }

    // Called with the head, with each piece of the body, at the end of the request, and when a slow reply is ready.
    static MHD_Result requested(void *self, MHD_Connection *connection, const char *path, const char *method,
                                const char *, const char *piece, size_t *size, void **known) try {
        Client &client = of(self, connection);
        if (client.reply) return client.send();
        if (std::exchange(*known, &client) == nullptr) return MHD_YES;
        std::string &body = client.request.body;
        if (*size > 0) {
            body.append(piece, std::exchange(*size, 0));
            return body.size() <= kMostRead ? MHD_YES : MHD_NO;
        }
        client.request.path = path;
        MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, parameter, &client.request.parameters);
        const RequestHead head{method,
                               path,
                               localAddress(client.socket),
                               client.peer,
                               client.header("Host"),
                               client.header("Origin"),
                               client.header("Content-Type"),
                               client.header("Authorization"),
                               body.size()};
        return client.server->serve(client, head) ? client.send() : MHD_YES;
    } catch (const std::exception &) {  // out of memory
        return MHD_NO;
    }

    static void completed(void *self, MHD_Connection *connection, void **, MHD_RequestTerminationCode) {
        Client &client = of(self, connection);
        const Lock lock(client.server->mutex_);
        client = {client.server, connection, client.socket, client.peer};
    }

private:
    static Client &of(void *server, MHD_Connection *connection) {
        const Lock lock(static_cast<PageServer *>(server)->mutex_);
        return static_cast<PageServer *>(server)->clients_.at(connection);
    }

    std::string header(const char *name) const {
        const char *const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
        return value == nullptr ? "" : value;
    }

    static MHD_Result parameter(void *parameters, MHD_ValueKind, const char *name, size_t size, const char *value,
                                size_t length) {
        static_cast<std::map<std::string, std::string> *>(parameters)
            ->emplace(std::string(name, size), std::string(value == nullptr ? "" : value, length));
        return MHD_YES;
    }

    MHD_Result send() {
        MHD_Response *const response =
            takes(RouteKind::kStream)
                ? MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kMemory / 4, read, this, nullptr)
                : MHD_create_response_from_buffer(reply->body.size(), reply->body.data(), MHD_RESPMEM_PERSISTENT);
        std::map<std::string, std::string> headers = reply->headers;
        headers.insert(std::begin(kHeaders), std::end(kHeaders));
        headers.emplace("Content-Type", reply->type);
        for (const auto &[name, value] : headers) MHD_add_response_header(response, name.c_str(), value.c_str());
        const MHD_Result result = MHD_queue_response(connection, static_cast<unsigned>(reply->status), response);
        MHD_destroy_response(response);
        const Lock lock(server->mutex_);
        deadline = Clock::now() + kForReply;
        return result;
    }

    // Called when the client can take more of the stream.
    static ssize_t read(void *self, uint64_t, char *room, size_t size) {
        Client &client = *static_cast<Client *>(self);
        const Lock lock(client.server->mutex_);
        if (client.server->ends_) return MHD_CONTENT_READER_END_WITH_ERROR;
        const size_t length = client.events.copy(room, size);
        client.events.erase(0, length);
        if (length == 0) client.suspend();
        return static_cast<ssize_t>(length);
    }
};

PageServer::PageServer(const PageSettings &settings, Feed feed)
    : address_(settings.address),
      token_(settings.token),
      listener_(listenFor(settings)),
      feed_(std::move(feed)),
      routes_{{"/events", {"/events", openStream, RouteKind::kStream}}} {}

PageServer::~PageServer() { stop(); }

std::string PageServer::url() const { return fmt::format("http://{}:{}/", address_, listener_.port()); }

void PageServer::add(std::vector<Route> routes) {
    for (Route &route : routes) routes_[route.path] = std::move(route);
}

void PageServer::start(std::function<void(const std::string &trouble)> tell) {
    guard_.emplace(listener_.port(), token_, std::move(tell));
    // All threads of the page inherit the priority of their maker.
    std::async(std::launch::async, [this] {
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kGivesWay);
        const int listening = fcntl(listener_.descriptor(), F_DUPFD_CLOEXEC, 0);
        daemon_ =
            MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, Client::admit, this,
                             Client::requested, this, MHD_OPTION_LISTEN_SOCKET, listening, MHD_OPTION_NOTIFY_CONNECTION,
                             Client::changed, this, MHD_OPTION_NOTIFY_COMPLETED, Client::completed, this,
                             MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMemory, MHD_OPTION_END);
        if (daemon_ == nullptr) throw std::runtime_error("page: the HTTP server does not start");
        threads_.emplace_back([this] {
            for (int turn = 0; feedStreams(turn % kNewsPerBeat == 0); ++turn) std::this_thread::sleep_for(kBetweenNews);
        });
        for (size_t i = 0; i < kSlowThreads; ++i) threads_.emplace_back([this] { answerSlowly(); });
    }).get();
}

void PageServer::stop() {
    {
        const Lock lock(mutex_);
        ends_ = true;
        asked_.notifyAll();
    }
    for (std::thread &thread : threads_) thread.join();
    threads_.clear();
    {
        const Lock lock(mutex_);
        for (auto &[connection, client] : clients_) client.resume(kForReply);
    }
    if (daemon_ != nullptr) MHD_stop_daemon(std::exchange(daemon_, nullptr));
}

// Returns true when the address may have one more connection, or one more slow reply.
bool PageServer::hasRoom(const std::string &peer, bool slow) const {
    const Limits limits = slow ? kSlowReplies : kConnections;
    size_t same = 0, all = 0;
    for (const auto &[connection, client] : clients_) {
        if (slow && !client.takes(RouteKind::kSlow)) continue;
        same += client.peer == peer ? 1 : 0;
        all += isHere(client.peer) == isHere(peer) ? 1 : 0;
    }
    return same < limits.ofAddress && all < limits.ofAll;
}

// Returns true for a client on this machine. Others cannot forge that: the kernel drops their packets.
bool PageServer::isHere(const std::string &peer) const { return isLoopback(peer) || peer == address_; }

// Sets the client's reply and returns true. For a slow route suspends the client and returns false; the client's
// request and reply then belong to the thread that answers.
bool PageServer::serve(Client &client, const RequestHead &head) {
    const auto found = routes_.find(head.path);
    const Route *const route = found == routes_.end() ? nullptr : &found->second;
    client.reply = guard_->refusal(route, head);
    if (client.reply) return true;
    if (route->kind == RouteKind::kSlow) return askSlowly(client, *route);
    client.reply = answerOf(*route, client.request);
    if (route->kind != RouteKind::kStream) return true;
    const Lock lock(mutex_);
    client.route = route;
    client.events = fmt::format("retry: 1000\n\ndata: {}\n\n", feed_(client.seen));
    return true;
}

bool PageServer::askSlowly(Client &client, const Route &route) {
    const Lock lock(mutex_);
    if (ends_ || !hasRoom(client.peer, true)) {
        client.reply = refused(503, "The station has others to answer. Try again.", {{"Retry-After", "5"}});
        return true;
    }
    client.route = &route;
    client.suspend();
    asking_.insert(isHere(client.peer) ? asking_.begin() : asking_.end(), &client);
    asked_.notifyOne();
    return false;
}

// The reference to a client stays valid while it is suspended, even if its connection breaks.
void PageServer::answerSlowly() {
    Lock lock(mutex_);
    for (;;) {
        asked_.wait(lock, [this]() REQUIRES(mutex_) { return ends_ || !asking_.empty(); });
        if (ends_) return;
        Client &client = *asking_.front();
        asking_.pop_front();
        lock.unlock();
        client.reply = answerOf(*client.route, client.request);
        lock.lock();
        client.resume(kForReply);
    }
}

// Sends news to the streams, or with `beats` a sign of life, and ends clients that are too slow. A stream that has not
// taken its last events yet gets all later news at once. Returns false when the server ends.
bool PageServer::feedStreams(bool beats) try {
    const Lock lock(mutex_);
    for (auto &[connection, client] : clients_) {
        if (Clock::now() >= client.deadline) shutdown(client.socket, SHUT_RDWR);
        if (!client.takes(RouteKind::kStream) || !client.suspended) continue;
        const std::string data = feed_(client.seen);
        if (data.empty() && !beats) continue;
        client.events = fmt::format("data: {}\n\n", data.empty() ? "{}" : data);
        client.resume(kForEvents);
    }
    return !ends_;
} catch (const std::exception &) {  // out of memory
    return true;
}

}  // namespace station
