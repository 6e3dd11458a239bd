#pragma once
// The page's HTTP server. libmicrohttpd speaks HTTP; this class says who is served, for how long, and by which thread.

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "station/base/descriptor.h"
#include "station/base/mutex.h"
#include "station/line/line_file.h"
#include "station/page/guard.h"
#include "station/page/reply.h"
#include "station/wire/listener.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace station {

// Returns what a stream has not seen yet, as the data of an event; empty: nothing is new. `seen` is 0 at first, and is
// brought up to date.
using Feed = std::function<std::string(uint64_t &seen)>;

// One thread looks after all connections, one feeds the streams, and two answer what may take seconds. All give way to
// the boards' threads.
class PageServer {
public:
    // Listens. Throws ListenError.
    PageServer(const PageSettings &settings, Feed feed);
    ~PageServer();
    PageServer(const PageServer &) = delete;

    uint16_t port() const { return listener_.port(); }
    // To be called before start().
    void add(std::vector<Route> routes);
    // `tell` is called by the server's thread. Throws std::runtime_error.
    void start(std::function<void(const std::string &trouble)> tell);
    // Ends all connections. Nobody is answered any more when it returns.
    void stop();
    // Says that the feed has something new. To be called from any thread, as often as you like.
    void changed();

private:
    struct Client;
    struct Callbacks;  // what the library calls

    bool hasRoom(const std::string &peer, size_t ofAddress, size_t ofAll, bool slow) const REQUIRES(mutex_);
    bool isHere(const std::string &peer) const;
    bool serve(Client &client, const RequestHead &head);
    bool askSlowly(Client &client);
    void answerSlowly();
    void feedStreams();
    bool feedOnce(bool beats);

    Listener listener_;
    const std::string address_, token_;
    const Feed feed_;
    Routes routes_;
    Descriptor wakeup_;  // of the thread that feeds
    std::unique_ptr<Guard> guard_;
    MHD_Daemon *daemon_ = nullptr;
    std::atomic<bool> news_ = false;

    Mutex mutex_;
    Condition asked_;
    std::map<MHD_Connection *, Client> clients_ GUARDED_BY(mutex_);
    std::deque<Client *> asking_ GUARDED_BY(mutex_);  // for slow replies
    bool ends_ GUARDED_BY(mutex_) = false;

    std::vector<std::thread> threads_;
};

}  // namespace station
