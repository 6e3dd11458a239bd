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
    std::string waiting GUARDED_BY(mutex);
    size_t writing GUARDED_BY(mutex) = 0;    // bytes that the thread has taken and not yet written
    size_t dropped GUARDED_BY(mutex) = 0;    // lines since the reader fell behind
    uint64_t written GUARDED_BY(mutex) = 0;  // bytes in all
    bool ends GUARDED_BY(mutex) = false;
    std::string failure GUARDED_BY(mutex);

    bool idle() const REQUIRES(mutex) { return waiting.empty() && writing == 0; }
    size_t size() const REQUIRES(mutex) { return waiting.size() + writing; }
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
    if (queue_->size() > room) {
        queue_->dropped += static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
        return;
    }
    if (queue_->dropped > 0) queue_->waiting += describe_(std::exchange(queue_->dropped, 0));
    queue_->waiting += text;
    queue_->changed.notifyAll();
}

void Output::progress(const std::string &text) {
    {
        const Lock lock(queue_->mutex);
        if (queue_->size() > kMostForProgress) return;
    }
    put(text);
}

std::string Output::finish(const std::function<bool()> &hurry) {
    Lock lock(queue_->mutex);
    if (queue_->dropped > 0) queue_->waiting += describe_(std::exchange(queue_->dropped, 0));
    queue_->changed.notifyAll();
    uint64_t written = queue_->written;
    for (auto since = Clock::now(); !queue_->idle() && queue_->failure.empty();) {
        queue_->changed.waitFor(lock, kGlimpse);
        if (std::exchange(written, queue_->written) != queue_->written) since = Clock::now();
        if (hurry() && Clock::now() - since > kPatience) queue_->failure = "nobody reads it";
    }
    return queue_->failure;
}

// Writes the text in pieces, and calls `piece` after each. Returns what failed, or an empty text.
template <typename Piece>
static std::string writeAll(int descriptor, const std::string &text, const Piece &piece) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t length = ::write(descriptor, text.data() + done, std::min(kPiece, text.size() - done));
        if (length < 0 && errno == EAGAIN) {
            pollfd polled{descriptor, POLLOUT, 0};
            poll(&polled, 1, -1);
        } else if (length < 0 && errno != EINTR) {
            return strerror(errno);
        } else if (length > 0) {
            done += static_cast<size_t>(length);
            piece(static_cast<size_t>(length));
        }
    }
    return {};
}

void Output::write(const std::shared_ptr<Queue> &queue, int descriptor) {
    Lock lock(queue->mutex);
    for (;;) {
        queue->changed.wait(lock, [&]() REQUIRES(queue->mutex) { return queue->ends || !queue->waiting.empty(); });
        if (queue->ends) return;
        const std::string text = std::exchange(queue->waiting, {});
        queue->writing = text.size();
        lock.unlock();
        const std::string failure = writeAll(descriptor, text, [&](size_t length) {
            const Lock counting(queue->mutex);
            queue->writing -= length;
            queue->written += length;
            queue->changed.notifyAll();
        });
        lock.lock();
        queue->writing = 0;
        if (queue->failure.empty()) queue->failure = failure;
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
