#pragma once
// The page's HTTP server. libmicrohttpd speaks HTTP; this class decides who is served, for how long, in which thread.

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "station/base/mutex.h"
#include "station/line/line_file.h"
#include "station/page/guard.h"
#include "station/page/reply.h"
#include "station/wire/listener.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace station {

// Returns what a stream has not seen yet, as the data of an event; empty when nothing is new. `seen` is the version
// that the stream has, 0 at first; the call updates it.
using Feed = std::function<std::string(uint64_t &seen)>;

// One thread handles all connections, one feeds the streams, and two answer slow requests. All run at a lower priority
// than the boards' threads.
class PageServer {
public:
    // Listens, and answers after start(). Throws ListenError. Several threads call `feed`, one at a time.
    PageServer(const PageSettings &settings, Feed feed);
    ~PageServer();

    std::string url() const;
    // Adds routes. Must be called before start().
    void add(std::vector<Route> routes);
    // Starts the threads. Calls `tell`, in the library's thread, with what a person should look at. Throws
    // std::runtime_error.
    void start(std::function<void(const std::string &trouble)> tell);
    // Ends all connections and threads. No request is answered after it has returned.
    void stop();

private:
    struct Client;

    bool hasRoom(const std::string &peer, bool slow) const REQUIRES(mutex_);
    bool isHere(const std::string &peer) const;
    bool serve(Client &client, const RequestHead &head);
    bool askSlowly(Client &client, const Route &route);
    void answerSlowly();
    bool feedStreams(bool beats);

    const std::string address_, token_;
    const Listener listener_;
    const Feed feed_;
    Routes routes_;
    std::optional<Guard> guard_;
    MHD_Daemon *daemon_ = nullptr;

    Mutex mutex_;
    Condition asked_;
    std::map<MHD_Connection *, Client> clients_ GUARDED_BY(mutex_);
    std::deque<Client *> asking_ GUARDED_BY(mutex_);  // waiting for a slow reply
    bool ends_ GUARDED_BY(mutex_) = false;

    std::vector<std::thread> threads_;
};

}  // namespace station
