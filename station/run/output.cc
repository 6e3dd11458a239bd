#include "station/run/output.h"

#include <cstdio>
#include <utility>

namespace station {
namespace {

constexpr size_t kBehind = 1000;  // texts that wait

}  // namespace

Output::~Output() {
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    changed_.notify_one();
    writer_.join();
}

void Output::put(std::string text) {
    {
        const std::lock_guard lock(mutex_);
        texts_.push_back(std::move(text));
    }
    changed_.notify_one();
}

bool Output::behind() const {
    const std::lock_guard lock(mutex_);
    return texts_.size() > kBehind;
}

void Output::write() {
    std::unique_lock lock(mutex_);
    while (!ends_ || !texts_.empty()) {
        changed_.wait(lock, [&] { return ends_ || !texts_.empty(); });
        std::deque<std::string> texts = std::exchange(texts_, {});
        lock.unlock();
        for (const std::string &text : texts) std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        lock.lock();
    }
}

}  // namespace station
