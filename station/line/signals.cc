#include "station/line/signals.h"

#include <fmt/format.h>

#include <csignal>
#include <system_error>
#include <utility>

#include "station/base/mutex.h"
#include "station/base/text.h"
#include "station/run/output.h"

namespace station {
namespace {

sigset_t held() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
    return set;
}

}  // namespace

void holdSignals() {
    const sigset_t set = held();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

bool stopsWithin(std::chrono::seconds duration) {
    const sigset_t set = held();
    const timespec limit{duration.count(), 0};
    const int signal = sigtimedwait(&set, nullptr, &limit);
    return signal == SIGINT || signal == SIGTERM;
}

struct Signals::Reloading {
    Mutex mutex;
    bool wanted GUARDED_BY(mutex) = true;
    int signals GUARDED_BY(mutex) = 0;  // that wait for the thread that reads the file; 0: there is no thread
};

Signals::Signals(SignalActions actions)
    : actions_(std::move(actions)), reloading_(std::make_shared<Reloading>()), thread_([this] { watch(); }) {}

Signals::~Signals() {
    ends_ = true;
    pthread_kill(thread_.native_handle(), SIGHUP);
    thread_.join();
    const Lock lock(reloading_->mutex);
    reloading_->wanted = false;
}

void Signals::watch() {
    sigset_t set = held();
    int signal = 0;
    for (bool stopped = false; sigwait(&set, &signal) == 0 && !ends_;) {
        if (signal == SIGHUP) {
            reload();
        } else if (!std::exchange(stopped, true)) {
            actions_.stop();
        } else {
            sigdelset(&set, SIGHUP);                      // with which the destructor wakes this thread
            pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // the next signal ends the process
            actions_.end();
        }
    }
}

void Signals::reload() {
    const Lock lock(reloading_->mutex);
    if (reloading_->signals++ > 0) return;
    const auto work = [load = actions_.reload, state = reloading_] {
        for (bool more = true; more;) {
            {
                const Lock reading(state->mutex);
                state->signals = 1;
            }
            const std::function<void()> adopt = load();
            const Lock adopting(state->mutex);
            if (state->wanted) adopt();
            more = --state->signals > 0 && state->wanted;
        }
    };
    try {
        std::thread(work).detach();
    } catch (const std::system_error &error) {
        reloading_->signals = 0;
        printError(fmt::format("not reloaded, try again later: {}\n", error.what()));
    }
}

void Unfinished::stepStarts(const RunRecord &run, size_t step) {
    const Lock lock(mutex_);
    running_[run.place.name] = {oneLine(run.steps[step].title)};
}

void Unfinished::progress(const RunRecord &run, size_t, uint64_t, uint64_t) {
    const Lock lock(mutex_);
    running_[run.place.name].sent = true;
}

void Unfinished::stepEnds(const RunRecord &run, size_t) {
    const Lock lock(mutex_);
    running_.erase(run.place.name);
}

std::string Unfinished::describe() const {
    const Lock lock(mutex_);
    std::string text;
    for (const auto &[place, left] : running_) {
        text += fmt::format("place {}: left in the step {}{}\n", place, left.step,
                            left.sent ? ": may hold half of what was sent" : "");
    }
    return text;
}

}  // namespace station
