#include "station/line/crew.h"

namespace station {
namespace {

// Bytes of a thread's stack; the sanitizers' frames are several times larger.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kStack = 2 << 20;
#else
constexpr size_t kStack = 256 << 10;
#endif

}  // namespace

Crew::~Crew() {
    {
        const std::lock_guard lock(mutex_);
        dismissed_ = true;
    }
    changed_.notify_all();
    for (const pthread_t thread : threads_) pthread_join(thread, nullptr);
}

bool Crew::run(std::function<void()> task) {
    const std::lock_guard lock(mutex_);
    if (idle_ <= tasks_.size() && !hire()) return false;
    tasks_.push_back(std::move(task));
    changed_.notify_one();
    return true;
}

bool Crew::hire() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStack);
    pthread_t thread;
    const bool made = pthread_create(&thread, &attributes, work, this) == 0;
    pthread_attr_destroy(&attributes);
    if (!made) return false;
    threads_.push_back(thread);
    ++idle_;
    return true;
}

void *Crew::work(void *crew) {
    static_cast<Crew *>(crew)->workOn();
    return nullptr;
}

void Crew::workOn() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return !tasks_.empty() || dismissed_; });
        if (tasks_.empty()) return;
        const std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        --idle_;
        lock.unlock();
        task();
        lock.lock();
        ++idle_;
    }
}

}  // namespace station
