#pragma once
// Lets boards in at one socket, and refuses whatever else connects there.

#include <functional>
#include <string>
#include <vector>

#include "station/base/descriptor.h"
#include "station/run/observer.h"
#include "station/wire/listener.h"

namespace station {

// The address that all emulated boards come from, so it does not identify a place.
constexpr char kNoCable[] = "127.0.0.1";

// A connection that has no place yet.
struct Newcomer {
    Session session;
    Clock::time_point since = Clock::now();
    std::string answer = {};
    bool asked = false;
    bool board = false;  // it has answered as a board does
};

// Belongs to one thread; only wake() may be called by others. Keeps only a few newcomers, so that a flood on this
// socket does not affect the others: further connections wait in the kernel.
class Door {
public:
    Door(Listener &listener, const Observers &observers);

    Listener &listener() { return listener_; }
    // Ends the wait of attend(). Any thread may call this.
    void wake() const;

    // Waits at most `limit` for something to happen. Then accepts connections, if `accept`, and finds out which
    // newcomers are boards: with `probe` those that answer an unknown word with UNKNOWN, which changes nothing on a
    // board; without it all. Drops newcomers that have gone. Refuses those that are not boards, and every board but one
    // that waits for the same place. Reports at most one stranger per second, with the number of the others.
    void attend(bool accept, bool probe, Milliseconds limit);

    // Offers each board to `seat`, which returns true when it has taken the session.
    void handOver(const std::function<bool(Session &)> &seat);

    // Reports the last refusal and the number of others, unless they have been reported.
    void report();

    // Returns how many newcomers are boards, or have not had time to answer yet.
    size_t expected() const;
    // Returns how many newcomers may or may not be boards: all, or those from this address.
    size_t undecided(const std::string &address = {}) const;
    // Returns " ADDRESS:PORT" for each board without a place.
    std::string boards() const;

private:
    // Boards that wait do not count: they must not keep out a board that connects again.
    bool full() const { return undecided() >= most_; }
    void letIn();
    bool judge(Newcomer &newcomer, bool probe);
    void refuseSurplus();
    void refuse(const Session &stranger, const std::string &why);

    Listener &listener_;
    const Observers observers_;
    const bool cabled_;  // the socket has an interface of its own
    const size_t most_;  // limit for newcomers, and the same for boards that wait
    const Descriptor wakeup_;
    Clock::time_point pausedUntil_;  // while no descriptor is left
    std::vector<Newcomer> newcomers_;
    std::string refused_, why_;     // the last stranger
    size_t unreported_ = 0;         // strangers
    Clock::time_point nextReport_;  // at the earliest
};

}  // namespace station
