#pragma once
// Standard output for the boards' threads, which never wait for whoever reads it.

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace station {

// Everything that was put is written, in order, before the end of its life; ferror(stdout) tells whether it was taken.
class Output {
public:
    Output() : writer_([this] { write(); }) {}
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void put(std::string text);
    // The reader is behind: what is worth nothing later can be left out.
    bool behind() const;

private:
    void write();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> texts_;
    bool ends_ = false;
    std::thread writer_;
};

}  // namespace station
