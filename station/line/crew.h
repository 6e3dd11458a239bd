#pragma once
// The threads that boards are served by.

#include <condition_variable>
#include <functional>
#include <mutex>

namespace station {

// Threads with small stacks, one a task, so that a thousand of them fit anywhere.
class Crew {
public:
    Crew() = default;
    Crew(const Crew &) = delete;
    ~Crew();  // waits for the tasks that run

    // Has a thread run the task, at once. False, and nothing is done, when no thread can be made.
    [[nodiscard]] bool run(std::function<void()> task);

private:
    struct Errand {
        Crew &crew;
        std::function<void()> task;
    };
    static void *work(void *argument);

    std::mutex mutex_;
    std::condition_variable ended_;
    size_t working_ = 0;
};

}  // namespace station
