#pragma once
// A stream of lines, such as standard output, that no thread ever waits for.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace station {

// Keeps at most 4 MiB for a slow reader: from 1 MiB on progress() is dropped, from 4 MiB on whole lines are, until half
// of what waits has been taken. `describe` then makes the line that says how many were dropped.
class Output {
public:
    using Describe = std::function<std::string(size_t dropped)>;
    // Writes to a descriptor, which stays the caller's.
    Output(int descriptor, Describe describe);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    // One or more whole lines.
    void put(const std::string &text);
    // Text that is worth nothing later.
    void progress(const std::string &text);

    // Waits until everything is written. Once `hurry` returns true, a reader that takes nothing for a second is given
    // up. Returns why something was not written, the first reason; empty: everything was.
    std::string finish(const std::function<bool()> &hurry);

private:
    struct Queue;
    static void write(const std::shared_ptr<Queue> &queue, int descriptor);

    const Describe describe_;
    const std::shared_ptr<Queue> queue_;  // shared with the writing thread, which may be blocked for good
};

// Writes to standard error, and gives up a reader that takes nothing for a second.
void printError(std::string_view text);

}  // namespace station
