#pragma once
// The signals by which a person, or the system, has the line stop or read its file again.

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "station/base/descriptor.h"
#include "station/base/mutex.h"
#include "station/run/observer.h"

namespace station {

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and in those that it makes from now on, and ignores SIGPIPE.
// Must be called before any thread is made.
void holdSignals();

// Waits so long. Returns true when SIGINT or SIGTERM came meanwhile.
bool stopsWithin(std::chrono::seconds duration);

struct SignalActions {
    std::function<void()> stop;  // at the first SIGINT or SIGTERM
    std::function<void()> end;   // at the second; the third ends the process, whatever this waits for
    // At SIGHUP, in a thread that nothing waits for, so it may outlive this and all that it refers to. What it returns
    // is called there, unless the Signals are gone by then.
    std::function<std::function<void()>()> reload;
};

// Acts on the signals that are held, in a thread of its own that never waits for anything else.
class Signals {
public:
    explicit Signals(SignalActions actions);
    ~Signals();
    Signals(const Signals &) = delete;

private:
    struct Reloading;
    void watch();
    void reload();

    SignalActions actions_;
    const std::shared_ptr<Reloading> reloading_;
    Descriptor signals_, done_;
    std::thread thread_;
};

// Knows which step of which board runs.
class Unfinished : public Observer {
public:
    void stepStarts(const RunRecord &run, size_t step) override;
    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override;
    void stepEnds(const RunRecord &run, size_t step) override;

    // Returns a line per board: where it was left, and whether it may hold half of what was sent.
    std::string describe() const;

private:
    struct Left {
        std::string step;
        bool sent = false;  // some of a payload
    };
    mutable Mutex mutex_;
    std::map<std::string, Left> running_ GUARDED_BY(mutex_);  // by the place's name
};

}  // namespace station
