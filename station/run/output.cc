#include "station/run/output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <thread>
#include <utility>

#include "station/base/mutex.h"
#include "station/base/time.h"

namespace station {
namespace {

constexpr size_t kMost = 4 << 20, kMostForProgress = kMost / 4;  // bytes that wait
constexpr size_t kPiece = 65536;                                 // bytes of a write
constexpr Milliseconds kGlimpse{100};
constexpr std::chrono::seconds kPatience{1};

}  // namespace

struct Output::Queue {
    Mutex mutex;
    Condition changed;
    std::string waiting GUARDED_BY(mutex);   // what is being written comes first
    size_t dropped GUARDED_BY(mutex) = 0;    // lines since the reader fell behind
    uint64_t written GUARDED_BY(mutex) = 0;  // bytes in all
    bool ends GUARDED_BY(mutex) = false;
    std::string failure GUARDED_BY(mutex);
};

Output::Output(int descriptor, Describe describe) : describe_(std::move(describe)), queue_(std::make_shared<Queue>()) {
    std::thread(write, queue_, descriptor).detach();
}

Output::~Output() {
    finish([] { return true; });
    const Lock lock(queue_->mutex);
    queue_->ends = true;
    queue_->changed.notifyAll();
}

void Output::put(const std::string &text) {
    const Lock lock(queue_->mutex);
    const size_t room = queue_->dropped > 0 ? kMost / 2 : kMost;
    if (queue_->waiting.size() > room) {
        queue_->dropped += static_cast<size_t>(std::ranges::count(text, '\n'));
        return;
    }
    if (queue_->dropped > 0) queue_->waiting += describe_(std::exchange(queue_->dropped, 0));
    queue_->waiting += text;
    queue_->changed.notifyAll();
}

void Output::progress(const std::string &text) {
    {
        const Lock lock(queue_->mutex);
        if (queue_->waiting.size() > kMostForProgress) return;
    }
    put(text);
}

std::string Output::finish(const std::function<bool()> &hurry) {
    Lock lock(queue_->mutex);
    if (queue_->dropped > 0) queue_->waiting += describe_(std::exchange(queue_->dropped, 0));
    queue_->changed.notifyAll();
    uint64_t written = queue_->written;
    for (auto since = Clock::now(); !queue_->waiting.empty() && queue_->failure.empty();) {
        queue_->changed.waitFor(lock, kGlimpse);
        if (std::exchange(written, queue_->written) != queue_->written) since = Clock::now();
        if (hurry() && Clock::now() - since > kPatience) queue_->failure = "nobody reads it";
    }
    return queue_->failure;
}

// Drops all that waits when a write fails, and tries again with what comes later.
void Output::write(const std::shared_ptr<Queue> &queue, int descriptor) {
    Lock lock(queue->mutex);
    for (;;) {
        queue->changed.wait(lock, [&]() REQUIRES(queue->mutex) { return queue->ends || !queue->waiting.empty(); });
        if (queue->ends) return;
        const std::string piece = queue->waiting.substr(0, kPiece);
        lock.unlock();
        pollfd polled{descriptor, POLLOUT, 0};
        poll(&polled, 1, -1);
        const ssize_t length = ::write(descriptor, piece.data(), piece.size());
        const std::string failure = length < 0 && errno != EAGAIN && errno != EINTR ? strerror(errno) : "";
        lock.lock();
        if (queue->failure.empty()) queue->failure = failure;
        if (length > 0) queue->written += static_cast<size_t>(length);
        queue->waiting.erase(0,
                             failure.empty() ? static_cast<size_t>(std::max<ssize_t>(length, 0)) : std::string::npos);
        queue->changed.notifyAll();
    }
}

void printError(std::string_view text) {
    while (!text.empty()) {
        pollfd waiting = {STDERR_FILENO, POLLOUT, 0};
        if (poll(&waiting, 1, 1000) <= 0) return;
        const ssize_t written = write(STDERR_FILENO, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (written <= 0) return;
        text.remove_prefix(static_cast<size_t>(written));
    }
}

}  // namespace station
