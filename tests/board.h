#pragma once
// What tests do on the native board (board/native), where every path is the real one: a test program started elsewhere
// goes there first. Each test finds the board as a factory finds it, with an empty /tmp and /var.

#include <gmock/gmock.h>
#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace board {

// True under user-mode emulation, which answers for some of what the kernel would: a process reads a made-up
// /proc/PID/stat of its own, and an error that waits on a socket keeps its number of the host.
#if defined(__mips__)
constexpr bool kEmulated = true;
#else
constexpr bool kEmulated = false;
#endif

// Ends the process with a message unless `succeeded`.
void check(bool succeeded, const char *what);

// The texts that were logged at user.alert since the log was cleared last, by any process. "[name,line]" in front is
// cut to "[name]": the line is the source's own business. Line ends come out as blanks, as the system log shows them.
std::vector<std::string> log();
void clearLog();
// Takes the system log away, socket and all, and gives it back.
void stopLog();
void startLog();

// True when `condition` came to hold; waits for it up to `seconds`.
bool waitFor(double seconds, const std::function<bool()> &condition);
// True when a text that contains `part` has been logged.
bool waitForLog(std::string_view part, double seconds = 20);

void writeFile(const std::string &path, std::string_view content, int mode = 0644);  // makes missing folders
std::string readFile(const std::string &path);                                       // empty when there is none
bool exists(const std::string &path);
std::string pattern(size_t length);  // bytes without a repeated sequence

// Runs a line of the shell to its end, and returns what it printed, standard error included.
std::string run(const std::string &line, int expectedStatus = 0);

// Runs the function in the station's network, for instance to listen there.
void inStationNetwork(const std::function<void()> &function);

// Runs the function in a child process and returns its process ID; it ends with status 0, or 1 when a gtest assertion
// failed in it.
pid_t fork(const std::function<void()> &function);
// Waits for a child to end. Returns its exit status, or minus the signal that ended it; kRuns when it has not ended
// within the time.
constexpr int kRuns = 1000;
int wait(pid_t child, double seconds = 60);

pid_t pidOf(const std::string &name);  // the first process of this name, -1 when there is none

// A process that waits under a name of its own, killed at the end of its life.
class NamedProcess {
public:
    explicit NamedProcess(const std::string &name);
    ~NamedProcess();
    NamedProcess(const NamedProcess &) = delete;
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

// Firmware images, byte by byte.
std::string padded(std::string text, size_t length, char filling = ' ');
std::string header(const std::string &text);                            // a section's header, 64 bytes
std::string section(const std::string &name, const std::string &data);  // its header, and its data
std::string productBlock(const std::string &vendor = "ACME");           // 60 bytes: VENDOR AP-1 01.02.03 00012003
std::string sealed(const std::string &image);                           // followed by the digest and a line end

class BoardTest : public testing::Test {
protected:
    void SetUp() override;
    // Fails unless the services ended with status 0 and no sanitizer found anything.
    void TearDown() override;

    // Writes the settings, after those of brand and model, to the board's file. Does not load them.
    static void configure(const std::string &settings);
    // Starts the service with SIGPIPE ignored, as procd does. This process becomes its parent.
    void start(const std::string &mode);
    // Waits for the service's end. Returns its status as from wait().
    int serviceStatus(double seconds = 20);

    pid_t service_ = -1;
};

}  // namespace board
