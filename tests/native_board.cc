#include "tests/native_board.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>

#include "support/configuration.h"
#include "tests/board_root.h"

// There in a build that counts what the tests run.
extern "C" [[gnu::weak]] void __gcov_dump();

namespace board {
namespace {

namespace fs = std::filesystem;

int stationNetwork = -1;
int boardNetwork = -1;

void shell(const std::string &line) { check(system(line.c_str()) == 0, line.c_str()); }

int openNetwork() { return open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC); }

// The caller is in the station's network; it comes back in the board's, with one end of the cable.
void makeNetworks() {
    stationNetwork = openNetwork();
    shell("/usr/bin/ip link add eth0 type veth peer name station");
    shell("ip link set lo up; ip addr add 192.168.1.2/24 dev station; ip link set station up");
    check(unshare(CLONE_NEWNET) == 0, "unshare");
    boardNetwork = openNetwork();
    shell("ip link set lo up");
    const pid_t self = getpid();
    wait(fork([self] {
        check(setns(stationNetwork, CLONE_NEWNET) == 0, "setns");
        shell("/usr/bin/ip link set eth0 netns " + std::to_string(self));
    }));
}

// Receives what any process of the board logs. Messages reach the socket in order, so a message of the reader's own
// says that everything before it has been read.
class SystemLog {
public:
    void open() {
        fs::remove(kPath);
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, kPath);
        check(bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "bind /dev/log");
        reader_ = std::thread([this] { read(); });
    }

    void close() {
        send(kEnd);
        reader_.join();
        ::close(socket_);
        fs::remove(kPath);
        closelog();
    }

    std::vector<LogMessage> messages() {
        const int awaited = ++sent_;
        send(kMark + std::to_string(awaited));
        while (seen_ < awaited) std::this_thread::sleep_for(std::chrono::microseconds(200));
        const std::lock_guard lock(mutex_);
        return messages_;
    }

    void clear() {
        messages();
        const std::lock_guard lock(mutex_);
        messages_.clear();
    }

private:
    static constexpr char kPath[] = "/dev/log";
    static inline const std::string kMark = "mark ";
    static inline const std::string kEnd = "end";

    static void send(const std::string &text) {
        const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, kPath);
        sendto(socket, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ::close(socket);
    }

    void read() {
        std::vector<char> datagram(65536);
        for (;;) {
            const ssize_t length = recv(socket_, datagram.data(), datagram.size(), 0);
            if (length < 0) continue;
            const std::string text(datagram.data(), static_cast<size_t>(length));
            if (text == kEnd) return;
            if (text.starts_with(kMark)) {
                seen_ = std::stoi(text.substr(kMark.size()));
            } else {
                add(text);
            }
        }
    }

    // "<priority>[date] identity: text"
    void add(const std::string &datagram) {
        const size_t text = datagram.find(": ");
        const std::lock_guard lock(mutex_);
        messages_.push_back(
            {std::stoi(datagram.substr(1)), text == std::string::npos ? "" : datagram.substr(text + 2)});
    }

    int socket_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::vector<LogMessage> messages_;
    int sent_ = 0;
    std::atomic<int> seen_ = 0;
};

// Never destroyed: processes that a test forks end without their reader.
SystemLog &systemLog() {
    static SystemLog *const log = new SystemLog;
    return *log;
}

// But for what leads to this build, which may lie below /tmp.
void empty(const fs::path &folder) {
    for (const auto &entry : fs::directory_iterator(folder)) {
        const std::string path = entry.path();
        if (!std::string_view(PROJECT_BINARY_DIR "/").starts_with(path + "/")) fs::remove_all(path);
    }
}

}  // namespace

void enter() {
    enterRoot(getenv("GCOV_PREFIX"));  // where a build that counts what the tests run puts its counts
    makeNetworks();
    systemLog().open();
}

std::vector<LogMessage> logMessages() { return systemLog().messages(); }

std::vector<std::string> logTexts() {
    std::vector<std::string> texts;
    for (const LogMessage &message : logMessages()) {
        texts.push_back(message.text);
        if (texts.back().ends_with('\n')) texts.back().pop_back();
    }
    return texts;
}

std::vector<std::string> logTextsWithoutLines() {
    std::vector<std::string> texts = logTexts();
    for (std::string &text : texts) {
        const size_t comma = text.find(',');
        const size_t bracket = text.find_first_not_of("0123456789", comma + 1);
        if (text.starts_with('[') && bracket != std::string::npos && text[bracket] == ']') {
            text.erase(comma, bracket - comma);
        }
    }
    return texts;
}

bool waitForLog(std::string_view part, double seconds) {
    return waitFor(seconds, [&] {
        for (const std::string &text : logTexts()) {
            if (text.find(part) != std::string::npos) return true;
        }
        return false;
    });
}

bool waitFor(double seconds, const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

void clearLog() { systemLog().clear(); }

void removeSystemLog() { systemLog().close(); }

void restoreSystemLog() { systemLog().open(); }

void writeFile(const std::string &path, std::string_view content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    ASSERT_TRUE(file.flush()) << path;
}

std::string readFile(const std::string &path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

void inStationNetwork(const std::function<void()> &function) {
    check(setns(stationNetwork, CLONE_NEWNET) == 0, "setns");
    function();
    check(setns(boardNetwork, CLONE_NEWNET) == 0, "setns");
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

int wait(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

NamedProcess::NamedProcess(const std::string &name) {
    const std::string path = "/var/" + name;
    if (!fs::exists(path)) fs::copy_file("/usr/bin/sleep", path);
    pid_ = board::fork([&] { execl(path.c_str(), path.c_str(), "60", nullptr); });
    const std::string comm = "/proc/" + std::to_string(pid_) + "/comm";
    waitFor(5, [&] { return readFile(comm) == name.substr(0, 15) + "\n"; });
}

NamedProcess::~NamedProcess() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    if (pid_ > 0) waitForEnd();
}

int NamedProcess::waitForEnd() { return board::wait(std::exchange(pid_, -1)); }

void NativeBoardTest::SetUp() {
    for (const char *folder : {"/etc", "/var", "/tmp", "/sys"}) empty(folder);
    fs::create_directories("/etc/sysconfig/.firewall");
    for (const auto &entry : fs::directory_iterator("/dev")) {
        if (entry.path().filename().string().starts_with("mtd")) fs::remove_all(entry.path());
    }
    memset(static_cast<void *>(get_configuration()), 0, kConfigurationSize);
    clearLog();
}

}  // namespace board

int main(int argc, char **argv) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) listing = listing || strstr(argv[i], "gtest_list_tests") != nullptr;
    if (!listing) board::enter();
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
