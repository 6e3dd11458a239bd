#pragma once
// The daemon's binary on the native board: the command line's modes, and the service that the station talks to.

#include <string>
#include <vector>

#include "station/wire/listener.h"
#include "tests/native_board.h"

namespace board {

// What a mode printed, and its exit status.
struct Outcome {
    std::string output;
    int status;
};

class ServiceTest : public NativeBoardTest {
protected:
    // Writes a configuration of two wired ports and two radios.
    void SetUp() override;
    // Ends the service, if it still runs.
    void TearDown() override;

    // Makes the text the board's configuration. Loads nothing.
    static void configure(const std::string &text);

    // Runs the binary with these arguments behind its name, "fabtestd", to its end, standard error included.
    static Outcome run(const std::vector<std::string> &arguments);

    // Replaces this process by the binary.
    [[noreturn]] static void execute(const std::vector<std::string> &arguments);

    // Starts the service by `mode`; comes back when the process that was started has ended, as it does at once.
    void start(const std::string &mode);
    static station::Listener listenAsStation();
    // Listens, starts the service and accepts it.
    station::Session startSession();

    // Partition `number` of the fake flash, filled with `content`; it is copied to /tmp/dev when the service starts.
    static void makePartition(int number, const std::string &content);
    static std::string partition(int number);

    static pid_t servicePid();
    static void signalService(int signal);
    // Comes back when the service sleeps. It logs the request of a factory reset, for one, before it comes to wait for
    // the signals that answer it, and one that comes too early does not count.
    static void waitUntilItSleeps();
    // True when the service has ended by itself; waits for that.
    static bool hasEnded();
};

}  // namespace board
