#include "station/line/signals.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

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
    bool busy GUARDED_BY(mutex) = false;   // a thread is reading
    bool again GUARDED_BY(mutex) = false;  // SIGHUP came meanwhile
};

Signals::Signals(SignalActions actions)
    : actions_(std::move(actions)),
      reloading_(std::make_shared<Reloading>()),
      signals_(-1),
      done_(eventfd(0, EFD_CLOEXEC)) {
    const sigset_t set = held();
    signals_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
    thread_ = std::thread([this] { watch(); });
}

Signals::~Signals() {
    eventfd_write(done_.descriptor(), 1);
    thread_.join();
    const Lock lock(reloading_->mutex);
    reloading_->wanted = false;
}

void Signals::watch() {
    bool stopped = false;
    for (;;) {
        pollfd polled[] = {{signals_.descriptor(), POLLIN, 0}, {done_.descriptor(), POLLIN, 0}};
        if (poll(polled, 2, -1) < 0) continue;
        if (polled[1].revents != 0) return;
        signalfd_siginfo signal{};
        if (read(signals_.descriptor(), &signal, sizeof signal) != sizeof signal) continue;
        if (signal.ssi_signo == SIGHUP) {
            reload();
        } else if (stopped) {
            const sigset_t set = held();
            pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // the next signal ends the process
            actions_.end();
        } else {
            stopped = true;
            actions_.stop();
        }
    }
}

void Signals::reload() {
    const Lock lock(reloading_->mutex);
    reloading_->again = std::exchange(reloading_->busy, true);
    if (reloading_->again) return;
    const auto work = [load = actions_.reload, state = reloading_] {
        for (;;) {
            const std::function<void()> adopt = load();
            const Lock adopting(state->mutex);
            if (state->wanted) adopt();
            state->busy = std::exchange(state->again, false) && state->wanted;
            if (!state->busy) return;
        }
    };
    try {
        std::thread(work).detach();
    } catch (const std::system_error &error) {
        reloading_->busy = false;
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
