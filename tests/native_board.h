#pragma once
// The native board: the test process in the namespaces and on the root file system of board_root.h, with a system log
// whose messages the tests read.
//
// Interface eth0 is one end of a cable whose other end is a second network, the station's, at 192.168.1.2.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace board {

// True where the tests run under user-mode emulation. It answers for some of what the kernel would: a process reads a
// made-up /proc/PID/stat of its own, and an error that waits on a socket keeps its number of the host.
#if defined(__mips__)
constexpr bool kEmulated = true;
#else
constexpr bool kEmulated = false;
#endif

// Puts the calling process, which has one thread, on a board, and comes back there. The original process stays outside
// and ends with the status of the one on the board.
void enter();

// A message of the system log, as it arrived: its priority and the text behind the identity, line end included.
struct LogMessage {
    int priority;
    std::string text;
};

// Every message logged so far on the board, by any process.
std::vector<LogMessage> logMessages();
// Their texts, line ends removed.
std::vector<std::string> logTexts();
// The same with "[name,line] " in front cut to "[name] ": the line is the source's own business.
std::vector<std::string> logTextsWithoutLines();
// True when a message containing `part` has been logged; waits for it up to `seconds`.
bool waitForLog(std::string_view part, double seconds);
// True when `condition` came to hold; waits for it up to `seconds`.
bool waitFor(double seconds, const std::function<bool()> &condition);

// Forgets what has been logged so far.
void clearLog();

// Takes the system log away, socket and all, and gives it back.
void removeSystemLog();
void restoreSystemLog();

void writeFile(const std::string &path, std::string_view content);  // makes missing folders
std::string readFile(const std::string &path);                      // empty when there is none
bool exists(const std::string &path);

// Runs the function in the station's network, for instance to listen there.
void inStationNetwork(const std::function<void()> &function);

// Runs the function in a child process and returns the child's process ID; the child ends with status 0, or 1 when a
// gtest assertion failed in it.
pid_t fork(const std::function<void()> &function);
// Waits for a child to end. Returns its exit status, or minus the signal that ended it.
int wait(pid_t child);

// A process that waits under a name of its own, killed at the end of its life.
class NamedProcess {
public:
    explicit NamedProcess(const std::string &name);
    ~NamedProcess();
    NamedProcess(const NamedProcess &) = delete;

    pid_t pid() const { return pid_; }
    int waitForEnd();  // as wait()

private:
    pid_t pid_;
};

// Puts the board's files, configuration table and log into their first state before each test.
class NativeBoardTest : public testing::Test {
protected:
    void SetUp() override;
};

}  // namespace board
