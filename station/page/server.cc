#include "station/page/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

namespace station {
namespace {

// Limits of connections, and of slow replies, which may be large: per address, and for all other machines together.
// This machine has as many of its own.
constexpr size_t kOfAddress = 32, kOfAll = 96, kSlowOfAddress = 6, kSlowOfAll = 16;
constexpr size_t kSlowThreads = 2;
constexpr size_t kMemory = 16384;  // of a connection: a request's head has 8 kB of it at least
constexpr size_t kLongestBody = 16384, kMostRead = 4 * kLongestBody;
constexpr std::chrono::seconds kForRequest{10};  // to arrive, from the connection or the last reply on
constexpr std::chrono::seconds kForReply{30};    // to be taken
constexpr std::chrono::seconds kForEvents{10};   // to be taken
constexpr std::chrono::hours kForEver{10000};
constexpr Milliseconds kBetweenNews{200};    // five times a second is live for people
constexpr Milliseconds kBetweenBeats{2000};  // by which a page knows that its station lives
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

std::string textOf(const sockaddr *address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(address)->sin_addr, text.data(), text.size());
    return text.data();
}

std::string localAddress(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length);
    return textOf(reinterpret_cast<sockaddr *>(&address));
}

template <typename Work>
std::thread startThread(Work work) {
    return std::thread([work = std::move(work)] {
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kGivesWay);
        work();
    });
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

}  // namespace

// Guarded by the server's mutex, except the last three members: they belong to the thread that works on the request.
struct PageServer::Client {
    PageServer *server;
    MHD_Connection *connection;
    int socket;
    std::string peer;
    Clock::time_point deadline = Clock::now() + kForRequest;
    bool suspended = false;  // the library leaves it alone until it is resumed
    bool slow = false;       // its reply is being made or taken, and may be large
    bool streams = false;
    std::string events = {};  // not taken yet
    uint64_t seen = 0;        // of the feed
    const Route *route = nullptr;
    PageRequest request = {};
    std::optional<PageReply> reply = {};

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
};

struct PageServer::Callbacks {
    static MHD_Result admit(void *self, const sockaddr *peer, socklen_t) {
        auto &server = *static_cast<PageServer *>(self);
        const Lock lock(server.mutex_);
        return server.hasRoom(textOf(peer), kOfAddress, kOfAll, false) ? MHD_YES : MHD_NO;
    }

    static void connection(void *self, MHD_Connection *connection, void **, MHD_ConnectionNotificationCode code) {
        auto &server = *static_cast<PageServer *>(self);
        const auto *const peer = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr;
        const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        const Lock lock(server.mutex_);
        server.clients_.erase(connection);
        if (code == MHD_CONNECTION_NOTIFY_STARTED)
            server.clients_.emplace(connection, Client{&server, connection, socket, textOf(peer)});
    }

    // Called with the head, with each piece of the body, at the end of the request, and when a slow reply is ready.
    static MHD_Result request(void *self, MHD_Connection *connection, const char *path, const char *method,
                              const char *, const char *piece, size_t *size, void **known) try {
        Client &client = clientOf(self, connection);
        if (client.reply) return reply(client);
        if (std::exchange(*known, &client) == nullptr) return MHD_YES;
        std::string &body = client.request.body;
        if (*size > 0) {
            body.append(piece, std::exchange(*size, 0));
            return body.size() <= kMostRead ? MHD_YES : MHD_NO;
        }
        client.request.path = path;
        MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, parameter, &client.request.parameters);
        const bool answered =
            client.server->serve(client, {method, path, localAddress(client.socket), client.peer,
                                          header(connection, "Host"), header(connection, "Origin"),
                                          header(connection, "Content-Type"), header(connection, "Authorization")});
        return answered ? reply(client) : MHD_YES;
    } catch (const std::exception &) {  // out of memory
        return MHD_NO;
    }

    static void completed(void *self, MHD_Connection *connection, void **, MHD_RequestTerminationCode) {
        Client &client = clientOf(self, connection);
        const Lock lock(client.server->mutex_);
        client = {client.server, connection, client.socket, client.peer};
    }

private:
    static Client &clientOf(void *server, MHD_Connection *connection) {
        const Lock lock(static_cast<PageServer *>(server)->mutex_);
        return static_cast<PageServer *>(server)->clients_.at(connection);
    }

    static std::string header(MHD_Connection *connection, const char *name) {
        const char *const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
        return value == nullptr ? "" : value;
    }

    static MHD_Result parameter(void *parameters, MHD_ValueKind, const char *name, size_t size, const char *value,
                                size_t length) {
        static_cast<std::map<std::string, std::string> *>(parameters)
            ->emplace(std::string(name, size), std::string(value == nullptr ? "" : value, length));
        return MHD_YES;
    }

    static MHD_Result reply(Client &client) {
        PageReply &given = *client.reply;
        MHD_Response *const response =
            client.streams
                ? MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kMemory / 4, events, &client, nullptr)
                : MHD_create_response_from_buffer(given.body.size(), given.body.data(), MHD_RESPMEM_PERSISTENT);
        for (const auto &[name, value] : kHeaders) {
            if (!given.headers.contains(name)) MHD_add_response_header(response, name, value);
        }
        for (const auto &[name, value] : given.headers) MHD_add_response_header(response, name.c_str(), value.c_str());
        MHD_add_response_header(response, "Content-Type", given.type.c_str());
        const MHD_Result result = MHD_queue_response(client.connection, static_cast<unsigned>(given.status), response);
        MHD_destroy_response(response);
        const Lock lock(client.server->mutex_);
        client.deadline = Clock::now() + kForReply;
        return result;
    }

    // Called when the client can take more of the stream.
    static ssize_t events(void *context, uint64_t, char *room, size_t size) {
        Client &client = *static_cast<Client *>(context);
        const Lock lock(client.server->mutex_);
        if (client.server->ends_) return MHD_CONTENT_READER_END_WITH_ERROR;
        const size_t length = client.events.copy(room, size);
        client.events.erase(0, length);
        if (length == 0) client.suspend();
        return static_cast<ssize_t>(length);
    }
};

PageServer::PageServer(const PageSettings &settings, Feed feed)
    : listener_(listenFor(settings)),
      address_(settings.address),
      token_(settings.token),
      feed_(std::move(feed)),
      wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    add({{"/events", {}, RouteKind::kStream}});
}

PageServer::~PageServer() { stop(); }

void PageServer::add(std::vector<Route> routes) {
    for (Route &route : routes) routes_[route.path] = std::move(route);
}

void PageServer::start(std::function<void(const std::string &trouble)> tell) {
    guard_ = std::make_unique<Guard>(port(), token_, std::move(tell));
    startThread([this] {  // the library's thread inherits the priority of its maker
        const int listening = fcntl(listener_.descriptor(), F_DUPFD_CLOEXEC, 0);
        daemon_ =
            MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, Callbacks::admit, this,
                             Callbacks::request, this, MHD_OPTION_LISTEN_SOCKET, listening,
                             MHD_OPTION_NOTIFY_CONNECTION, Callbacks::connection, this, MHD_OPTION_NOTIFY_COMPLETED,
                             Callbacks::completed, this, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMemory, MHD_OPTION_END);
    })
        .join();
    if (daemon_ == nullptr) throw std::runtime_error("page: the HTTP server does not start");
    threads_.push_back(startThread([this] { feedStreams(); }));
    for (size_t i = 0; i < kSlowThreads; ++i) threads_.push_back(startThread([this] { answerSlowly(); }));
}

void PageServer::stop() {
    {
        const Lock lock(mutex_);
        ends_ = true;
    }
    asked_.notifyAll();
    changed();
    for (std::thread &thread : threads_) thread.join();
    threads_.clear();
    {
        const Lock lock(mutex_);
        for (auto &[connection, client] : clients_) client.resume(kForReply);
    }
    if (daemon_ != nullptr) MHD_stop_daemon(std::exchange(daemon_, nullptr));
}

void PageServer::changed() {
    if (!news_.exchange(true)) eventfd_write(wakeup_.descriptor(), 1);
}

// Returns true when the address may have one more client; with `slow`, one more slow reply.
bool PageServer::hasRoom(const std::string &peer, size_t ofAddress, size_t ofAll, bool slow) const {
    size_t same = 0, all = 0;
    for (const auto &[connection, client] : clients_) {
        if (slow && !client.slow) continue;
        same += client.peer == peer ? 1 : 0;
        all += isHere(client.peer) == isHere(peer) ? 1 : 0;
    }
    return same < ofAddress && all < ofAll;
}

// Returns true for a client on this machine. Others cannot forge that: the kernel drops their packets.
bool PageServer::isHere(const std::string &peer) const { return isLoopback(peer) || peer == address_; }

// Sets the client's reply and returns true. For a slow route suspends the client and returns false; the client's
// request and reply then belong to the thread that answers.
bool PageServer::serve(Client &client, const RequestHead &head) {
    const auto found = routes_.find(head.path);
    client.route = found == routes_.end() ? nullptr : &found->second;
    client.reply = guard_->refusal(client.route, head);
    if (client.reply) return true;
    if (client.request.body.size() > kLongestBody) {
        client.reply = refused(413, fmt::format("a body has at most {} bytes", kLongestBody));
    } else if (client.route->kind == RouteKind::kSlow) {
        return askSlowly(client);
    } else if (client.route->kind == RouteKind::kStream) {
        client.reply = {200, "text/event-stream"};
        const Lock lock(mutex_);
        client.streams = true;
        client.events = fmt::format("retry: 1000\n\ndata: {}\n\n", feed_(client.seen));
    } else {
        client.reply = answerOf(*client.route, client.request);
    }
    return true;
}

bool PageServer::askSlowly(Client &client) {
    const Lock lock(mutex_);
    if (ends_ || !hasRoom(client.peer, kSlowOfAddress, kSlowOfAll, true)) {
        client.reply = refused(503, "The station has others to answer. Try again.", {{"Retry-After", "5"}});
        return true;
    }
    client.slow = true;
    client.suspend();
    if (isHere(client.peer)) {
        asking_.push_front(&client);
    } else {
        asking_.push_back(&client);
    }
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

void PageServer::feedStreams() {
    auto beat = Clock::now();
    bool beats = true;
    while (feedOnce(beats)) {
        std::this_thread::sleep_for(kBetweenNews);
        beats = !waitFor(wakeup_.descriptor(), POLLIN, beat);
        if (beats) beat = Clock::now() + kBetweenBeats;
    }
}

// Sends news to the streams, or with `beats` a sign of life, and ends clients that are too slow. A stream that has not
// taken its last events yet gets all later news at once. Returns false when the server ends.
bool PageServer::feedOnce(bool beats) try {
    eventfd_t ignored;
    eventfd_read(wakeup_.descriptor(), &ignored);
    news_ = false;
    const Lock lock(mutex_);
    for (auto &[connection, client] : clients_) {
        if (Clock::now() >= client.deadline) shutdown(client.socket, SHUT_RDWR);
        if (!client.streams || !client.suspended) continue;
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
