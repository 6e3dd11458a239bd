#include "station/line/crew.h"

#include <pthread.h>

#include <memory>
#include <utility>

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
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return working_ == 0; });
}

bool Crew::run(std::function<void()> task) {
    auto errand = std::make_unique<Errand>(Errand{*this, std::move(task)});
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStack);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const std::lock_guard lock(mutex_);
    pthread_t thread;
    const bool made = pthread_create(&thread, &attributes, work, errand.get()) == 0;
    pthread_attr_destroy(&attributes);
    if (!made) return false;
    (void)errand.release();  // it is the thread's
    ++working_;
    return true;
}

void *Crew::work(void *argument) {
    std::unique_ptr<Errand> errand(static_cast<Errand *>(argument));
    Crew &crew = errand->crew;
    errand->task();
    errand.reset();
    const std::lock_guard lock(crew.mutex_);  // to the end: behind it the crew may be gone
    --crew.working_;
    crew.ended_.notify_all();
    return nullptr;
}

}  // namespace station
