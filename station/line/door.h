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
    std::string peer, address;
    Clock::time_point since;
    std::string answer = {};
    bool asked = false;
    bool board = false;  // it has answered as a board does
};

// Belongs to one thread; only wake() may be called by others. Keeps only a few newcomers, so that a flood on this
// socket does not affect the others: further connections wait in the kernel.
class Door {
public:
    Door(Listener &listener, Observer &observer);

    Listener &listener() { return listener_; }
    // Ends the wait of attend().
    void wake() const;

    // Waits for something to happen, at most so long; then accepts who knocks, if `accept`, and finds out what the
    // newcomers are. Reports one stranger a second at most, and counts the others there. Without `probe` all are
    // boards; with it, a board is what answers an unknown word with UNKNOWN, which changes nothing there. Drops
    // newcomers that have gone, refuses those that are no boards, and all boards but one that wait for the same place.
    void attend(bool accept, bool probe, Milliseconds limit);

    // Offers each board to `seat`, and drops it from the newcomers when `seat` returns true, having taken the session.
    void handOver(const std::function<bool(Newcomer &)> &seat);

    // Reports the last refusal, if it is not reported yet, and how many others are not.
    void report();

    // Returns how many newcomers are boards, or have hardly had the time to answer.
    size_t expected() const;
    // Returns true while it is unknown what some of the newcomers are.
    bool undecided() const;
    // Returns " ADDRESS:PORT" for each board without a place.
    std::string boards() const;

private:
    size_t most() const;  // newcomers, and as many boards that wait
    bool full() const;
    void letIn();
    bool crowded(const std::string &address) const;
    bool judge(Newcomer &newcomer, bool probe);
    void refuseSurplus();
    void refuse(const Newcomer &stranger, const std::string &why);

    Listener &listener_;
    Observer &observer_;
    const Descriptor wakeup_;
    Clock::time_point pausedUntil_;  // no descriptor is left
    std::vector<Newcomer> newcomers_;
    std::string refused_, why_;     // the last stranger
    size_t unreported_ = 0;         // strangers
    Clock::time_point nextReport_;  // at the earliest
};

}  // namespace station
