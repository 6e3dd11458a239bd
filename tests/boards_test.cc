// Many boards at once, each in namespaces of its own and cabled to an interface of its own, against one station: the
// real programs at both ends.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/service.h"

using testing::HasSubstr;

namespace {

constexpr int kBoards = 16;

class Boards : public board::ServiceTest {
protected:
    void TearDown() override {
        for (const pid_t pid : boards_) kill(pid, SIGKILL);
        for (const pid_t pid : boards_) board::wait(pid);
    }

    // Starts a board whose first process runs `life`, and cables its eth0 to the interface "lineN" of the station.
    void addBoard(const std::function<void()> &life) {
        int ready[2], cabled[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC) + pipe2(cabled, O_CLOEXEC), 0);
        const pid_t pid = board::fork([&] {
            ASSERT_EQ(unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC), 0);
            close(ready[1]);
            char go;
            ASSERT_EQ(read(cabled[0], &go, 1), 1);
            ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, nullptr), 0);
            ASSERT_EQ(system("/bin/ip link set lo up; /bin/ip link set eth0 up"), 0);
            ASSERT_EQ(unshare(CLONE_NEWPID), 0);  // the next child is the first process there
            board::wait(board::fork(life));
        });
        boards_.push_back(pid);
        close(ready[1]);
        char byte;
        ASSERT_EQ(read(ready[0], &byte, 1), 0) << "closed when the board's namespaces are there";
        const std::string line = "line" + std::to_string(boards_.size());
        board::inStationNetwork([&] {
            ASSERT_EQ(
                system(("/usr/bin/ip link add " + line + " type veth peer name eth0 netns " + std::to_string(pid) +
                        "; /usr/bin/ip addr add 192.168.1.2/24 dev " + line + "; /usr/bin/ip link set " + line + " up")
                           .c_str()),
                0);
        });
        ASSERT_EQ(write(cabled[1], "!", 1), 1);
        for (const int end : {ready[0], cabled[0], cabled[1]}) close(end);
        lines_.push_back(line);
    }

    // Connects once, as the service does, and resets the connection with the first command half read; or stalls.
    static void misbehave(bool reset) {
        ASSERT_EQ(system("/bin/ip addr add 192.168.1.1/24 dev eth0"), 0);
        const std::string fate = reset ? "head -c 1" : "sleep 60";
        system(("until [ -e /tmp/connected ]; do"
                "  sleep 0.2; /bin/nc 192.168.1.2 55688 -e /bin/sh -c 'touch /tmp/connected; " +
                fate + "'; done")
                   .c_str());
    }

    std::vector<pid_t> boards_;
    std::vector<std::string> lines_;
};

TEST_F(Boards, SixteenAtOnceEachWithItsOwnResult) {
    makePartition(2, std::string(1 << 20, '\x55'));
    board::writeFile("/var/plan/kernel.bin", std::string(300000, 'k'));
    board::writeFile("/var/plan/script.sh", "#!/bin/sh\necho \"board's\" output; exit 3\n");
    board::writeFile("/var/plan/line.yaml",
                     "- {send: PING, expect: PING 2, timeout: 3}\n"
                     "- {send: 'FW KERNEL {size}', upload: kernel.bin, expect: OK, timeout: 60}\n"
                     "- {script: script.sh, status: 3, output: \"board's output\\n\", timeout: 20}\n"
                     "- {send: BYE, expect: BYE, closes: true}\n");
    // All but three are good: two of those connect, but are no boards; one never connects.
    for (int i = 0; i < kBoards - 3; ++i) {
        addBoard([] {
            board::wait(board::fork([] { execute({"daemon"}); }));
            while (::wait(nullptr) > 0) {
            }
        });
    }
    addBoard([] { misbehave(true); });
    addBoard([] { misbehave(false); });
    addBoard([] { pause(); });

    std::vector<const char *> words = {QCSTATION, "run",       "/var/plan/line.yaml", "--wait",
                                       "8",       "--results", "/var/results"};
    for (const std::string &line : lines_) words.insert(words.end(), {"--interface", line.c_str()});
    words.push_back(nullptr);
    int status = -1;
    board::inStationNetwork([&] {
        status = board::wait(board::fork([&] {
            const int output = open("/var/output", O_WRONLY | O_CREAT, 0644);
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
            execv(QCSTATION, const_cast<char **>(words.data()));
        }));
    });
    const std::string output = board::readFile("/var/output");
    EXPECT_EQ(status, 1) << output;
    EXPECT_THAT(output, testing::EndsWith("plan line: 16 boards, 3 failed\n"));
    EXPECT_THAT(output, HasSubstr("line16  FAIL  0.0 s  no board connected\n"));

    int passed = 0, records = 0, logs = 0, reports = 0, absent = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/var/results")) {
        const std::string text = board::readFile(entry.path());
        const std::string extension = entry.path().extension();
        records += extension == ".json";
        logs += extension == ".log";
        reports += extension == ".xml";
        if (extension == ".json") passed += text.find("\"verdict\": \"failed\"") == std::string::npos;
        if (extension != ".xml") continue;
        absent += text.find("<failure message=\"no board connected\" />") != std::string::npos;
    }
    EXPECT_EQ(passed, kBoards - 3) << output;
    EXPECT_EQ(records, kBoards);
    EXPECT_EQ(logs, kBoards);
    EXPECT_EQ(reports, kBoards);
    EXPECT_EQ(absent, 3) << "who answers no command is no board";
}

}  // namespace
