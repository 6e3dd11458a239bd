#pragma once
// Mutexes whose use Clang checks when scripts/lint runs: only code that holds the mutex may touch a member that is
// GUARDED_BY it.
//
//     Mutex mutex_;
//     Condition changed_;
//     int count_ GUARDED_BY(mutex_) = 0;
//
//     const Lock lock(mutex_);
//     changed_.wait(lock, [this]() REQUIRES(mutex_) { return count_ > 0; });

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define THREAD_ATTRIBUTE(attribute)
#endif

#define GUARDED_BY(mutex) THREAD_ATTRIBUTE(guarded_by(mutex))             // for a member
#define REQUIRES(...) THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))  // for a function: the caller holds the lock
#define UNCHECKED_THREADS THREAD_ATTRIBUTE(no_thread_safety_analysis)     // for a function: a comment must say why

namespace station {

class THREAD_ATTRIBUTE(capability("mutex")) Mutex {
private:
    friend class Lock;
    std::mutex mutex_;
};

// Holds a mutex during its lifetime, except between unlock() and lock().
class THREAD_ATTRIBUTE(scoped_lockable) Lock {
public:
    explicit Lock(Mutex &mutex) THREAD_ATTRIBUTE(acquire_capability(mutex)) : lock_(mutex.mutex_) {}
    ~Lock() THREAD_ATTRIBUTE(release_capability()) {}

    void unlock() THREAD_ATTRIBUTE(release_capability()) { lock_.unlock(); }
    void lock() THREAD_ATTRIBUTE(acquire_capability()) { lock_.lock(); }

private:
    friend class Condition;
    mutable std::unique_lock<std::mutex> lock_;
};

// Like std::condition_variable. Clang does not see that wait() holds the lock when it calls `until`.
class Condition {
public:
    template <typename Until>
    void wait(const Lock &lock, Until until) UNCHECKED_THREADS {
        condition_.wait(lock.lock_, until);
    }
    template <typename Duration>
    void waitFor(const Lock &lock, Duration most) {
        condition_.wait_for(lock.lock_, most);
    }
    template <typename Deadline, typename Until>
    bool waitUntil(const Lock &lock, const Deadline &deadline, Until until) UNCHECKED_THREADS {
        return condition_.wait_until(lock.lock_, deadline, until);
    }
    void notifyOne() { condition_.notify_one(); }
    void notifyAll() { condition_.notify_all(); }

private:
    std::condition_variable condition_;
};

}  // namespace station
