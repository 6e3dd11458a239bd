#pragma once
// A stream of lines, such as standard output, that no thread ever waits for.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace station {

// Keeps at most 4 MiB for a slow reader. From 1 MiB on it drops progress(), from 4 MiB on all lines, until the reader
// has taken half of the waiting text. Then it adds the line that `describe` returns for the number of dropped lines.
class Output {
public:
    using Describe = std::function<std::string(size_t dropped)>;
    // Writes to a descriptor, which stays the caller's.
    Output(int descriptor, Describe describe);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    // Queues one or more whole lines.
    void put(const std::string &text);
    // Queues text that is useless later, such as progress.
    void progress(const std::string &text);

    // Waits until everything is written. Once `hurry` returns true, gives up a reader that takes nothing for a second.
    // Returns the first reason why something was not written; empty when everything was.
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
