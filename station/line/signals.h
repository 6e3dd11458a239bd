#pragma once
// The signals with which a person or the system stops the line or makes it read its file again.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace station {

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and in those that it makes from now on, and ignores SIGPIPE.
// Must be called before any thread is made.
void holdSignals();

// Waits for this time. Returns true when SIGINT or SIGTERM comes meanwhile.
bool stopsWithin(std::chrono::seconds duration);

struct SignalActions {
    std::function<void()> stop;  // at the first SIGINT or SIGTERM
    std::function<void()> end;   // at the second; the third ends the process, whatever this waits for
    // Called at SIGHUP, in a detached thread: it must not refer to anything that it could outlive. The function that it
    // returns is called in that thread, unless another SIGHUP has come, or the Signals object is gone by then.
    std::function<std::function<void()>()> reload;
};

// Handles the signals that holdSignals() blocks, in a thread that waits for nothing else.
class Signals {
public:
    explicit Signals(SignalActions actions);
    ~Signals();

private:
    struct Reloads;
    void watch();
    void reload();

    SignalActions actions_;
    const std::shared_ptr<Reloads> reloads_;
    std::atomic<bool> ends_ = false;
    std::thread thread_;
};

}  // namespace station
