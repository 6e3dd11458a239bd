#include "tests/service.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/configuration.h"
#include "support/process_file.h"

namespace board {
namespace {

constexpr char kSettings[] = "#& 1\n"
                             "SYSTEM_BRAND = \"ACME\"\n"
                             "SYSTEM_MODEL = \"AP-2\"\n"
                             "SYSTEM_MAC_ARGS = \"6 2 2 1_0 2_6 50_1002 60_5006\"\n"
                             "WIFI_DEV_DEFINE = \"3\"\n";

}  // namespace

void ServiceTest::execute(const std::vector<std::string> &arguments) {
    std::vector<char *> words = {const_cast<char *>("fabtestd")};
    for (const std::string &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    close_range(STDERR_FILENO + 1, ~0U, 0);  // what this process inherited is not the board's
    execv(FABTESTD, words.data());
    _exit(127);
}

void ServiceTest::SetUp() {
    NativeBoardTest::SetUp();
    ASSERT_EQ(system("/bin/ip addr flush dev eth0; /bin/ip link set eth0 up; /bin/ip addr add 192.168.1.1/24 dev eth0"),
              0);
    configure(kSettings);
    setenv("HURRY", "100", 1);  // the waits between attempts, before the connection and for reboots
}

void ServiceTest::TearDown() {
    // The station has gone: a service that was connected ends by itself, and tells what it leaked.
    if (!waitFor(1, [] { return servicePid() < 0; })) my_killproc("fabtestd", SIGKILL);
    for (const auto &entry : std::filesystem::directory_iterator("/var")) {
        const std::string path = entry.path();
        if (path.starts_with("/var/sanitizer")) ADD_FAILURE() << readFile(path);
    }
}

void ServiceTest::configure(const std::string &text) {
    writeFile(kDefaultConfiguration, text);
    writeFile(kPersistentConfiguration, text);
}

Outcome ServiceTest::run(const std::vector<std::string> &arguments) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const pid_t child = board::fork([&] {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        execute(arguments);
    });
    close(ends[1]);
    Outcome outcome;
    char part[4096];
    for (ssize_t length; (length = read(ends[0], part, sizeof part)) > 0;) {
        outcome.output.append(part, static_cast<size_t>(length));
    }
    close(ends[0]);
    outcome.status = board::wait(child);
    return outcome;
}

void ServiceTest::start(const std::string &mode) {
    EXPECT_EQ(board::wait(board::fork([&] { execute({mode}); })), 0);
}

station::Listener ServiceTest::listenAsStation() {
    std::optional<station::Listener> listener;
    inStationNetwork([&] { listener.emplace(station::kDefaultAddress, station::kDefaultPort); });
    return std::move(*listener);
}

station::Session ServiceTest::startSession() {
    station::Listener listener = listenAsStation();
    start("daemon");
    return listener.accept(station::Milliseconds(10000));
}

void ServiceTest::makePartition(int number, const std::string &content) {
    writeFile("/dev/mtd" + std::to_string(number), content);
}

std::string ServiceTest::partition(int number) { return readFile("/tmp/dev/mtd" + std::to_string(number)); }

pid_t ServiceTest::servicePid() { return my_procisrun("fabtestd"); }

void ServiceTest::signalService(int signal) { my_killproc("fabtestd", signal); }

void ServiceTest::waitUntilItSleeps() {
    const std::string call = "/proc/" + std::to_string(servicePid()) + "/syscall";
    EXPECT_TRUE(waitFor(10, [&] { return readFile(call).starts_with(std::to_string(SYS_clock_nanosleep) + " "); }));
}

bool ServiceTest::hasEnded() {
    return waitFor(10, [] { return servicePid() < 0; });
}

}  // namespace board
