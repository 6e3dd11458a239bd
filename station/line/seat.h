#pragma once
// A place of the line, with the board that sits there.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "station/run/run.h"

namespace station {

// The line's own thread looks after the seat; reconnect() and session() are for the thread that serves the board.
class Seat : public Board {
public:
    // `wake` has the line look again.
    Seat(Place place, size_t socket, std::function<void()> wake)
        : place_(std::move(place)), socket_(socket), wake_(std::move(wake)) {}

    const Place &place() const { return place_; }
    size_t socket() const { return socket_; }

    // Board: over the connections of the board that is served.
    Session &session() override { return *session_; }
    void reconnect(Clock::time_point deadline) override;

    void sit(Session session) { session_ = std::move(session); }
    void leave() { session_.reset(); }
    // True while the plan waits for the board's next connection, which welcome() then takes; false: too late.
    bool awaits() const;
    bool welcome(Session &session);

    std::string address;          // of the last board's connection
    std::deque<Session> waiting;  // boards that came while the seat was taken
    bool busy = false;
    bool served = false;   // a board has had its run here
    bool verdict = false;  // the board that has had its run may still be there
    bool plugged = true;   // the place's interface is there

private:
    Place place_;
    size_t socket_;
    std::function<void()> wake_;
    std::optional<Session> session_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Session> returned_;
    bool awaits_ = false;
};

}  // namespace station
