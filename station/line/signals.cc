#include "station/line/signals.h"

#include <fmt/format.h>

#include <csignal>
#include <system_error>
#include <utility>

#include "station/base/mutex.h"
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

struct Signals::Reloads {
    Mutex mutex;
    int newest GUARDED_BY(mutex) = 0;  // its number; the others are not adopted
};

Signals::Signals(SignalActions actions)
    : actions_(std::move(actions)), reloads_(std::make_shared<Reloads>()), thread_([this] { watch(); }) {}

Signals::~Signals() {
    ends_ = true;
    pthread_kill(thread_.native_handle(), SIGHUP);
    thread_.join();
    const Lock lock(reloads_->mutex);
    ++reloads_->newest;
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

void Signals::reload() try {
    const Lock lock(reloads_->mutex);
    std::thread([load = actions_.reload, reloads = reloads_, number = ++reloads_->newest] {
        const std::function<void()> adopt = load();
        const Lock adopting(reloads->mutex);
        if (number == reloads->newest) adopt();
    }).detach();
} catch (const std::system_error &error) {
    printError(fmt::format("not reloaded, try again later: {}\n", error.what()));
}

}  // namespace station
