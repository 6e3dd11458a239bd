#pragma once
// The threads that boards are served by.

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace station {

// Threads with small stacks, so that a thousand of them fit anywhere. Each is made when it is first needed, and takes
// one task after another until the crew is dismissed.
class Crew {
public:
    Crew() = default;
    Crew(const Crew &) = delete;
    ~Crew();  // waits for the tasks that run

    // Has a thread run the task, at once. False, and nothing is done, when no thread can be made.
    [[nodiscard]] bool run(std::function<void()> task);

private:
    static void *work(void *crew);
    bool hire();
    void workOn();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    size_t idle_ = 0;
    bool dismissed_ = false;
    std::vector<pthread_t> threads_;
};

}  // namespace station
