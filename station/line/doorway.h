#pragma once
// Who connects to the line: boards are told from strangers before they get a place.

#include <poll.h>

#include <string>
#include <vector>

#include "station/run/observer.h"
#include "station/wire/listener.h"

namespace station {

// A board's new connection, and the listener's socket where it came.
struct Arrival {
    size_t socket;
    Session session;
};

class Doorway {
public:
    Doorway(Listener &listener, Observer &observer) : listener_(listener), observer_(observer) {}

    // With `probe` a board is who answers an unknown word as a board does; it changes nothing there.
    void setProbe(bool probe) { probe_ = probe; }
    void admit(size_t socket, bool boards) { listener_.admit(socket, boards); }
    size_t sockets() const { return listener_.sockets(); }

    // What to wait for.
    void addTo(std::vector<pollfd> &polled) const;
    // Lets in who waits, and returns those that have turned out to be boards. The others are refused in time.
    std::vector<Arrival> tend();

    // Newcomers at a socket that are likely to be boards: they have had hardly time to answer.
    size_t expected(size_t socket) const;
    bool busy() const { return !newcomers_.empty(); }
    // True when nobody is there or on the way.
    bool quiet() const { return newcomers_.empty() && listener_.quiet(); }

private:
    struct Newcomer {
        Arrival arrival;
        std::string peer;
        Clock::time_point since;
        std::string answer;
        bool asked = false;
    };
    void letIn(size_t socket);
    // True when the newcomer need not be waited for any longer; `board` then says what it is.
    bool judge(Newcomer &newcomer, bool &board);

    Listener &listener_;
    Observer &observer_;
    bool probe_ = true;
    Clock::time_point pausedUntil_;  // no descriptors are left
    std::vector<Newcomer> newcomers_;
};

}  // namespace station
