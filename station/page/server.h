#pragma once
// The page's server. Its limits are its own: whoever asks, and however many they are, takes nothing of the boards'.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "station/base/descriptor.h"
#include "station/line/line_file.h"
#include "station/page/exchange.h"
#include "station/wire/listener.h"

namespace station {

// What a stream has not seen yet, as the data of an event; empty: there is nothing new. `seen` is 0 at first, and is
// brought up to date.
using Feed = std::function<std::string(uint64_t &seen)>;

// One thread looks after all connections and never waits for any of them; two more answer what may take its time. All
// give way to the boards' threads.
class PageServer {
public:
    // Listens. Throws ListenError.
    PageServer(const PageSettings &settings, Feed feed);
    ~PageServer();
    PageServer(const PageServer &) = delete;

    uint16_t port() const { return listener_.port(); }
    // Before the start.
    void add(std::vector<Route> routes);
    void start();
    // Ends all connections. Nobody is answered any more when it returns.
    void stop();
    // From any thread, and as often as you like: the feed has something new.
    void changed();

private:
    struct Connection;
    struct Task {
        uint64_t connection;
        std::string request, address;
    };

    void work();
    void turn();
    void await();
    void admit();
    bool makeRoom();
    void serve(Connection &connection);
    void receive(Connection &connection);
    void takeRequest(Connection &connection);
    size_t count(bool Connection::*what) const;  // the connections that have this
    void reply(Connection &connection, HttpReply given);
    void send(Connection &connection);
    void collectAnswers();
    void feedStreams();
    void answerSlowly();
    void wake() const;

    Listener listener_;
    const std::string token_;
    const Feed feed_;
    Routes routes_;
    Descriptor wakeup_;
    std::unique_ptr<Exchange> exchange_;
    std::list<Connection> connections_;
    uint64_t connectionsMade_ = 0;
    Clock::time_point pausedUntil_{}, fed_{}, beat_{};
    std::atomic<bool> news_ = false, ends_ = false;

    std::mutex mutex_;  // of what follows
    std::condition_variable asked_;
    std::deque<Task> tasks_;
    std::vector<std::pair<uint64_t, HttpReply>> answers_;

    std::vector<std::thread> threads_;
};

}  // namespace station
