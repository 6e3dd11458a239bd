// Many boards at once, each in namespaces of its own and cabled to an interface of its own, against one station: the
// real programs at both ends.

#include <signal.h>

#include "tests/board.h"

using testing::HasSubstr;

namespace {

constexpr int kBoards = 16;

constexpr char kBoard[] =
    "/usr/bin/ip link add eth0 type veth peer name $0 netns 1; ip link set lo up; ip link set eth0 up;"
    "station ip addr add 192.168.1.2/24 dev $0; station ip link set $0 up; mount -t tmpfs none /tmp;"
    "exec /usr/bin/unshare --pid --fork --kill-child --mount-proc sh -c \"$1\"";

class Boards : public board::BoardTest {
protected:
    void TearDown() override {
        for (const pid_t pid : boards_) kill(pid, SIGKILL);
        for (const pid_t pid : boards_) board::wait(pid);
    }

    // Starts a board, cabled to the station's interface "lineN", that runs a shell command and ends with it.
    void addBoard(const std::string &life) {
        const std::string line = "line" + std::to_string(boards_.size() + 1);
        boards_.push_back(board::fork([&] {
            execl("/usr/bin/unshare", "unshare", "--net", "--ipc", "--mount", "sh", "-c", kBoard, line.c_str(),
                  life.c_str(), nullptr);
        }));
        board::run("until station ip link show " + line + " 2> /dev/null | grep -q ,UP; do sleep 0.05; done");
        lines_ += " --interface " + line;
    }

    // Connects as the service does, however long it takes, and then calls the function with the connection.
    static std::string connecting(const std::string &fate) {
        return "ip addr add 192.168.1.1/24 dev eth0; until [ -e /tmp/connected ]; do sleep 0.2;"
               "nc 192.168.1.2 55688 -e sh -c 'touch /tmp/connected; " +
               fate + "'; done";
    }

    std::vector<pid_t> boards_;
    std::string lines_;
};

TEST_F(Boards, SixteenAtOnceEachWithItsOwnResult) {
    setenv("HURRY", "100", 1);
    board::writeFile("/var/plan/kernel.bin", std::string(300000, 'k'));
    board::writeFile("/var/plan/script.sh", "#!/bin/sh\necho \"board's\" output; exit 3\n");
    board::writeFile("/var/plan/line.yaml",
                     "- {send: PING, expect: PING 2, timeout: 3}\n"
                     "- {send: 'FW KERNEL {size}', upload: kernel.bin, expect: OK, timeout: 60}\n"
                     "- {script: script.sh, status: 3, output: \"board's output\\n\", timeout: 20}\n"
                     "- {send: BYE, expect: BYE, closes: true}\n");
    // All but three are good. Two of the three connect but are not boards; one never connects.
    for (int i = 0; i < kBoards - 3; ++i)
        addBoard("fabtestd daemon; while pidof fabtestd > /dev/null; do sleep 0.1; done");
    addBoard(connecting("head -c 1"));
    addBoard(connecting("sleep 60"));
    addBoard("sleep 60");
    const std::string run = "station qcstation run /var/plan/line.yaml --wait 8 --results /var/results";
    const std::string output = board::run(run + lines_, 1);
    EXPECT_THAT(output, testing::EndsWith("plan line: 16 boards, 0 failed, 3 to be tested again\n"));
    EXPECT_THAT(output, HasSubstr("line16  AGAIN  0.0 s  no board connected  -> "));
    EXPECT_EQ(
        board::run("cd /var/results; ls *.json *.log *.xml | wc -l; grep -L '\"verdict\": \"failed\"' *.json | wc -l;"
                   "cat *.xml | grep -c '<error message=\"no board connected\" />'"),
        "48\n13\n3\n");
}

}  // namespace
