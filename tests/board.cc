#include "tests/board.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/configuration.h"

// There in a build that counts what the tests run.
extern "C" [[gnu::weak]] void __gcov_dump();

namespace board {
namespace {

namespace fs = std::filesystem;

constexpr char kLog[] = "/var/log/messages";

void emptyFolder(const fs::path &folder) {
    for (const auto &entry : fs::directory_iterator(folder)) fs::remove_all(entry);
}

// Messages reach the log in order, so one of our own says that all before it are there.
std::string settledLog() {
    static int marks = 0;
    const std::string mark = "mark " + std::to_string(getpid()) + "." + std::to_string(++marks) + "\n";
    syslog(LOG_DEBUG, "%s", mark.c_str());
    std::string text;
    check(waitFor(20, [&] { return (text = readFile(kLog)).find(mark) != std::string::npos; }), "the system log");
    return text;
}

std::string withoutLine(const std::string &text) {
    const size_t comma = text.find(','), bracket = text.find_first_not_of("0123456789", comma + 1);
    const bool placed = text.starts_with('[') && bracket != std::string::npos && text[bracket] == ']';
    return placed ? text.substr(0, comma) + text.substr(bracket) : text;
}

[[noreturn]] void goToTheBoard(char **argv) {
    std::vector<std::string> words = {SOURCES "/board/native", "/build/" + fs::path(argv[0]).filename().string()};
    if (kEmulated) words.insert(words.begin() + 1, EMULATOR);
    std::vector<char *> pointers;
    for (std::string &word : words) pointers.push_back(word.data());
    for (char **argument = argv + 1; *argument != nullptr; ++argument) pointers.push_back(*argument);
    pointers.push_back(nullptr);
    setenv("BUILD", BINARIES, 1);
    if (const char *const counts = getenv("GCOV_PREFIX")) setenv("WRITABLE", counts, 1);
    execv(pointers[0], pointers.data());
    check(false, pointers[0]);
    abort();
}

}  // namespace

void check(bool succeeded, const char *what) {
    if (succeeded) return;
    perror(what);
    _exit(99);
}

std::vector<std::string> log() {
    std::vector<std::string> texts;
    std::istringstream lines(settledLog());
    for (std::string line; std::getline(lines, line);) {
        const size_t alert = line.find(" user.alert "), text = line.find(": ", alert);
        if (alert != std::string::npos) texts.push_back(withoutLine(line.substr(text + 2)));
    }
    return texts;
}

void clearLog() {
    settledLog();
    fs::resize_file(kLog, 0);
}

void stopLog() {
    closelog();
    kill(pidOf("syslogd"), SIGKILL);
    waitFor(5, [] { return pidOf("syslogd") < 0; });
    fs::remove("/dev/log");
}

void startLog() {
    run("syslogd");
    waitFor(5, [] { return exists("/dev/log"); });
}

bool waitFor(double seconds, const std::function<bool()> &condition) {
    const auto start = std::chrono::steady_clock::now();
    while (!condition()) {
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
        if (waited.count() > seconds) return false;
        std::this_thread::sleep_for(waited / 20 + std::chrono::milliseconds(1));
    }
    return true;
}

bool waitForLog(std::string_view part, double seconds) {
    return waitFor(seconds, [&] { return settledLog().find(part) != std::string::npos; });
}

void writeFile(const std::string &path, std::string_view content, int mode) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    ASSERT_TRUE(file.flush()) << path;
    chmod(path.c_str(), static_cast<mode_t>(mode));
}

std::string readFile(const std::string &path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 131 + i / 259);
    return bytes;
}

std::string run(const std::string &line, int expectedStatus) {
    FILE *const output = popen(("{ " + line + "\n} 2>&1").c_str(), "re");
    check(output != nullptr, "popen");
    std::string text;
    char part[4096];
    for (size_t length; (length = fread(part, 1, sizeof part, output)) > 0;) text.append(part, length);
    const int status = pclose(output);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), expectedStatus) << line << "\n" << text;
    return text;
}

void inStationNetwork(const std::function<void()> &function) {
    static const int board = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    static const int station = open("/proc/1/ns/net", O_RDONLY | O_CLOEXEC);  // that of the board's first process
    check(setns(station, CLONE_NEWNET) == 0, "the station's network");
    function();
    check(setns(board, CLONE_NEWNET) == 0, "the board's network");
}

pid_t fork(const std::function<void()> &function) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    function();
    fflush(stdout);
    if (__gcov_dump != nullptr) __gcov_dump();
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

int wait(pid_t child, double seconds) {
    int status = 0;
    if (!waitFor(seconds, [&] { return waitpid(child, &status, WNOHANG) == child; })) return kRuns;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

pid_t pidOf(const std::string &name) {
    for (const auto &entry : fs::directory_iterator("/proc")) {
        if (readFile(entry.path() / "comm") == name + "\n") return std::stoi(entry.path().filename());
    }
    return -1;
}

NamedProcess::NamedProcess(const std::string &name) {
    const std::string path = "/var/" + name;
    if (!exists(path)) fs::copy_file("/usr/bin/sleep", path);
    pid_ = board::fork([&] { execl(path.c_str(), path.c_str(), "60", nullptr); });
    const std::string comm = "/proc/" + std::to_string(pid_) + "/comm";
    waitFor(5, [&] { return readFile(comm) == name.substr(0, 15) + "\n"; });
}

NamedProcess::~NamedProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::string padded(std::string text, size_t length, char filling) {
    text.resize(length, filling);
    return text;
}

std::string header(const std::string &text) { return padded(text, 64, '\0'); }

std::string section(const std::string &name, const std::string &data) {
    return header(std::to_string(data.size()) + " " + name) + data;
}

std::string productBlock(const std::string &vendor) {
    return padded(padded(vendor, 21) + padded("AP-1", 20) + "01.02.03 00012003", 60);
}

std::string sealed(const std::string &image) {
    writeFile("/var/sealed", image);
    return image + run("md5sum < /var/sealed").substr(0, 33);
}

void BoardTest::SetUp() {
    for (const char *folder : {"/tmp", "/etc"}) emptyFolder(folder);
    for (const auto &entry : fs::directory_iterator("/var")) {
        if (entry.path() != "/var/log") fs::remove_all(entry);
    }
    fs::copy("/src/board/rootfs/etc", "/etc", fs::copy_options::recursive);
    fs::create_directories("/etc/sysconfig/.firewall");
    memset(static_cast<void *>(get_configuration()), 0, kConfigurationSize);
    clearLog();
}

void BoardTest::TearDown() {
    // The station has gone. A connected service ends by itself; a service that still looks for a station is ended here.
    if (service_ > 0 && settledLog().find(": Socketid") == std::string::npos) {
        kill(service_, SIGKILL);
        EXPECT_EQ(wait(service_), -SIGKILL) << "it ended before";
        service_ = -1;
    }
    EXPECT_NE(serviceStatus(), kRuns);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    for (const auto &entry : fs::directory_iterator("/var")) {
        if (entry.path().stem() == "sanitizer") ADD_FAILURE() << readFile(entry.path());
    }
}

void BoardTest::configure(const std::string &settings) {
    writeFile(kDefaultConfiguration, "#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\n" + settings);
    fs::remove(kPersistentConfiguration);
}

void BoardTest::start(const std::string &mode) {
    EXPECT_EQ(run("trap '' PIPE; fabtestd " + mode + " 2> /var/error"), "");
    service_ = pidOf("fabtestd");
}

int BoardTest::serviceStatus(double seconds) {
    const int status = service_ < 0 ? 0 : wait(service_, seconds);
    if (status == kRuns) return status;
    EXPECT_EQ(status, 0) << testing::PrintToString(log());
    service_ = -1;
    return status;
}

}  // namespace board

int main(int argc, char **argv) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) listing = listing || strstr(argv[i], "gtest_list_tests") != nullptr;
    if (!listing && !board::exists("/flash")) board::goToTheBoard(argv);
    // Undo what the parent process left behind: ignored signals and open descriptors.
    for (const int signal : {SIGHUP, SIGINT, SIGPIPE, SIGQUIT, SIGTERM}) ::signal(signal, SIG_DFL);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    setenv("PATH", ("/build/tests:" + std::string(getenv("PATH"))).c_str(), 1);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
