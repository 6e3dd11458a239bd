#include "station/page/server.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "station/base/descriptor.h"

namespace station {
namespace {

// What browsers can take together. Replies that take their time are those that may be large.
constexpr size_t kMostConnections = 128, kMostStreams = 64, kMostSlow = 16;
constexpr size_t kAdmitted = 32;            // at once: who has just come is heard before he can be the one to go
constexpr size_t kSlowAnswers = 2;          // at once
constexpr Milliseconds kForRequest{10000};  // to come, and for the next one behind it
constexpr Milliseconds kForReply{30000};    // to be taken
constexpr Milliseconds kForStream{10000};   // to take what has happened, or to confirm that it has
constexpr std::chrono::hours kForEver{10000};
constexpr Milliseconds kForGoodbye{2000};    // for the browser to close behind an error
constexpr Milliseconds kBetweenNews{200};    // five times a second is live for people
constexpr Milliseconds kBetweenBeats{2000};  // by which a page knows that its station lives
constexpr Milliseconds kDescriptorPause{1000};
constexpr int kGivesWay = 10;

constexpr char kBusy[] =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nRetry-After: 5\r\nConnection: close\r\n\r\n";

void giveWay() { setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kGivesWay); }

std::string localAddress(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length);
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text.data();
}

Listener listenFor(const PageSettings &settings) try {
    return {settings.address, settings.port};
} catch (const ListenError &error) {
    throw ListenError(fmt::format("page: {}", error.what()));
}

enum class State { kReading, kAnswering, kWriting, kStreaming, kLeaving, kOver };

}  // namespace

struct PageServer::Connection {
    uint64_t id;
    Descriptor socket;
    std::string address;
    Clock::time_point deadline = Clock::now() + kForRequest;
    State state = State::kReading;
    std::string in = {}, out = {};
    size_t sent = 0;    // of what goes out
    uint64_t seen = 0;  // of the feed
    bool closes = false, streams = false;
    bool slow = false;  // its reply is made, or taken, without haste
    bool ready = false;

    short events() const {
        if (state == State::kAnswering) return 0;
        return static_cast<short>((state == State::kWriting ? 0 : POLLIN) | (out.empty() ? 0 : POLLOUT));
    }
    void enter(State next, Milliseconds limit) {
        state = next;
        deadline = Clock::now() + limit;
    }
};

PageServer::PageServer(const PageSettings &settings, Feed feed)
    : listener_(listenFor(settings)),
      token_(settings.token),
      feed_(std::move(feed)),
      wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    add({{"/events", {}, RouteKind::kStream}});
}

PageServer::~PageServer() { stop(); }

void PageServer::add(std::vector<Route> routes) {
    for (Route &route : routes) routes_[route.path] = std::move(route);
}

void PageServer::start() {
    exchange_ = std::make_unique<Exchange>(routes_, port(), token_);
    threads_.emplace_back([this] { work(); });
    for (size_t i = 0; i < kSlowAnswers; ++i) threads_.emplace_back([this] { answerSlowly(); });
}

void PageServer::stop() {
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    asked_.notify_all();
    wake();
    for (std::thread &thread : threads_) thread.join();
    threads_.clear();
    connections_.clear();
}

void PageServer::changed() {
    if (!news_.exchange(true)) wake();
}

void PageServer::wake() const { [[maybe_unused]] const int ignored = eventfd_write(wakeup_.descriptor(), 1); }

void PageServer::work() {
    giveWay();
    while (!ends_) {
        try {
            turn();
        } catch (const std::exception &) {  // out of memory, most likely; pages come back by themselves
            connections_.clear();
        }
    }
}

void PageServer::turn() {
    await();
    admit();
    for (Connection &connection : connections_) serve(connection);
    collectAnswers();
    feedStreams();
    connections_.remove_if([](const Connection &one) {
        return one.state == State::kOver || (one.state != State::kAnswering && Clock::now() >= one.deadline);
    });
}

// Until something can be read or written, or there is news that may be told; a second at most.
void PageServer::await() {
    std::vector<pollfd> polled = {{wakeup_.descriptor(), POLLIN, 0}, {listener_.descriptor(), POLLIN, 0}};
    if (Clock::now() < pausedUntil_) polled[1].fd = -1;
    for (Connection &one : connections_) {
        polled.push_back({one.state == State::kAnswering ? -1 : one.socket.descriptor(), one.events(), 0});
    }
    const auto limit = Clock::now() + Milliseconds(1000);
    poll(polled.data(), polled.size(), pollLimit(news_ ? std::min(limit, fed_ + kBetweenNews) : limit));
    eventfd_t count;
    [[maybe_unused]] const int ignored = eventfd_read(wakeup_.descriptor(), &count);
    auto found = polled.begin() + 2;
    for (Connection &one : connections_) one.ready = (found++)->revents != 0;
}

void PageServer::admit() {
    for (size_t i = 0; i < kAdmitted && Clock::now() >= pausedUntil_ && makeRoom(); ++i) {
        Descriptor socket(accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket.descriptor() < 0) {
            const bool none = errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
            if (!none) pausedUntil_ = Clock::now() + kDescriptorPause;
            return;
        }
        const int on = 1, limit = static_cast<int>(kForStream.count());
        setsockopt(socket.descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(socket.descriptor(), IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, sizeof limit);
        std::string address = localAddress(socket.descriptor());
        connections_.push_back({++connectionsMade_, std::move(socket), std::move(address)});
        connections_.back().ready = true;
    }
}

// Who has kept us waiting for longest goes first. False: all are in the middle of something; who comes waits.
bool PageServer::makeRoom() {
    if (connections_.size() < kMostConnections) return true;
    const auto idle = std::min_element(connections_.begin(), connections_.end(), [](const auto &a, const auto &b) {
        return std::pair(a.state != State::kReading, a.deadline) < std::pair(b.state != State::kReading, b.deadline);
    });
    if (idle->state != State::kReading) {
        pausedUntil_ = Clock::now() + kBetweenNews;
        return false;
    }
    connections_.erase(idle);
    return true;
}

void PageServer::serve(Connection &connection) {
    if (!connection.ready) return;
    if (connection.state != State::kWriting) receive(connection);
    if (!connection.out.empty()) send(connection);
}

void PageServer::receive(Connection &connection) {
    std::array<char, 16384> bytes;
    const ssize_t length = recv(connection.socket.descriptor(), bytes.data(), bytes.size(), 0);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (length <= 0) {
        connection.state = State::kOver;
    } else if (connection.state == State::kReading) {
        connection.in.append(bytes.data(), static_cast<size_t>(length));
        takeRequest(connection);
    }
}

void PageServer::takeRequest(Connection &connection) {
    const std::optional<size_t> size = sizeOfRequest(connection.in);
    if (!size) return;
    std::string request = connection.in.substr(0, *size);
    connection.in.erase(0, *size);
    const Route *const route = routeOf(routes_, request);
    if (route == nullptr || route->kind != RouteKind::kSlow) {
        return reply(connection, exchange_->answer(request, connection.address));
    }
    if (count(&Connection::slow) >= kMostSlow) return reply(connection, {kBusy, true, false});
    connection.state = State::kAnswering;
    connection.slow = true;
    {
        const std::lock_guard lock(mutex_);
        tasks_.push_back({connection.id, std::move(request), connection.address});
    }
    asked_.notify_one();
}

size_t PageServer::count(bool Connection::*what) const {
    const auto has = [what](const Connection &one) { return one.*what; };
    return static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(), has));
}

void PageServer::reply(Connection &connection, HttpReply given) {
    if (given.streams && count(&Connection::streams) >= kMostStreams) given = {kBusy, true, false};
    connection.out = std::move(given.bytes);
    connection.sent = 0;
    connection.closes = given.closes;
    connection.streams = given.streams;
    if (given.streams) connection.out += "retry: 1000\n\n";
    connection.enter(State::kWriting, kForReply);
    send(connection);
}

void PageServer::send(Connection &connection) {
    const ssize_t length = ::send(connection.socket.descriptor(), connection.out.data() + connection.sent,
                                  connection.out.size() - connection.sent, MSG_NOSIGNAL);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (length < 0) {
        connection.state = State::kOver;
        return;
    }
    connection.sent += static_cast<size_t>(length);
    if (connection.sent < connection.out.size()) return;
    connection.out = {};
    connection.sent = 0;
    connection.slow = false;
    if (connection.streams) {
        if (connection.seen == 0) news_ = true;  // for this one all is new
        connection.enter(State::kStreaming, kForEver);
    } else if (connection.closes) {
        shutdown(connection.socket.descriptor(), SHUT_WR);
        connection.enter(State::kLeaving, kForGoodbye);
    } else {
        connection.enter(State::kReading, kForRequest);
        takeRequest(connection);
    }
}

void PageServer::collectAnswers() {
    std::vector<std::pair<uint64_t, HttpReply>> answers;
    {
        const std::lock_guard lock(mutex_);
        answers.swap(answers_);
    }
    for (auto &[id, given] : answers) {
        const auto whose = std::find_if(connections_.begin(), connections_.end(),
                                        [id = id](const Connection &one) { return one.id == id; });
        if (whose != connections_.end()) reply(*whose, std::move(given));
    }
}

// A page that is behind gets what has happened meanwhile at once, when it has taken what it was sent.
void PageServer::feedStreams() {
    const auto now = Clock::now();
    const bool beats = now >= beat_ + kBetweenBeats;
    if (!beats && now < fed_ + kBetweenNews) return;
    news_ = false;
    fed_ = now;
    if (beats) beat_ = now;
    for (Connection &one : connections_) {
        if (one.state != State::kStreaming || !one.out.empty()) continue;
        const std::string data = feed_(one.seen);
        if (data.empty() && !beats) continue;
        one.out = fmt::format("data: {}\n\n", data.empty() ? "{}" : data);
        one.deadline = now + kForStream;
        send(one);
    }
}

void PageServer::answerSlowly() {
    giveWay();
    Exchange exchange(routes_, port(), token_);
    std::unique_lock lock(mutex_);
    for (;;) {
        asked_.wait(lock, [this] { return ends_ || !tasks_.empty(); });
        if (ends_) return;
        const Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        HttpReply given = exchange.answer(task.request, task.address);
        lock.lock();
        answers_.emplace_back(task.connection, std::move(given));
        wake();
    }
}

}  // namespace station
