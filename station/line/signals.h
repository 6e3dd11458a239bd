#pragma once
// How a person, or the system, has the line stop.

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "station/base/descriptor.h"
#include "station/run/observer.h"

namespace station {

// Takes SIGINT, SIGTERM and SIGHUP from the calling thread and those that it makes from now on; SIGPIPE ends nothing.
// To be called before any thread is made.
void holdSignals();

// Waits so long: true when meanwhile one of the held signals has said to stop.
bool stopsWithin(std::chrono::seconds duration);

struct SignalActions {
    std::function<void()> stop;    // at the first SIGINT or SIGTERM
    std::function<void()> end;     // at the second
    std::function<void()> reload;  // at SIGHUP
};

// Acts on the signals that are held, in a thread of its own, so that nothing that hangs keeps the line from ending.
class Signals {
public:
    explicit Signals(SignalActions actions);
    ~Signals();
    Signals(const Signals &) = delete;

private:
    void watch();

    SignalActions actions_;
    Descriptor signals_, done_;
    std::thread thread_;
};

// Knows which step of which board runs.
class Unfinished : public Observer {
public:
    void stepStarts(const RunRecord &run, size_t step) override;
    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override;
    void stepEnds(const RunRecord &run, size_t step) override;

    // A line a board: where it was left, and whether it may hold half of what was sent.
    std::string describe() const;

private:
    struct Left {
        std::string step;
        bool sent = false;  // some of a payload
    };
    mutable std::mutex mutex_;
    std::map<std::string, Left> running_;  // by the place's name
};

}  // namespace station
