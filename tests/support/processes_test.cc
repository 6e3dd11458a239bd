// The shell runner, processes, files and connections.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "support/process_file.h"
#include "support/shell.h"
#include "tests/board.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::ElementsAre, testing::IsEmpty, testing::UnorderedElementsAre;

// Every other write is interrupted by a signal, with nothing written; and directories can be made unreadable.
extern "C" ssize_t __real_write(int file, const void *data, size_t length);
extern "C" ssize_t __wrap_write(int file, const void *data, size_t length) {
    static int writes = 0;
    errno = EINTR;
    return ++writes % 2 == 0 ? -1 : __real_write(file, data, length);
}

bool unreadable = false;
extern "C" DIR *__real_opendir(const char *path);
extern "C" DIR *__wrap_opendir(const char *path) { return unreadable ? nullptr : __real_opendir(path); }

namespace {

class System : public board::BoardTest {};

TEST_F(System, ProcessesAreFoundByTheirWholeName) {
    const board::NamedProcess first("target"), second("target"), longer("target2"), odd("a) S (b");
    const board::NamedProcess cut("sixteen-letters-");  // the kernel keeps 15
    my_proc *const chain = my_findproc("target");
    std::vector<pid_t> pids;
    for (const my_proc *process = chain; process != nullptr; process = process->next) {
        EXPECT_EQ(process->state, 'S');
        EXPECT_EQ(process->tag, 0U);
        pids.push_back(process->pid);
    }
    my_freeproc(chain);
    EXPECT_THAT(pids, UnorderedElementsAre(first.pid(), second.pid()));
    const std::pair<const char *, pid_t> cases[] = {
        {"target2", longer.pid()},     {"targe", -1}, {"Target", -1}, {"a) S (b", odd.pid()}, {"sixteen-letters-", -1},
        {"sixteen-letters", cut.pid()}};
    for (const auto &[name, pid] : cases) EXPECT_EQ(my_procisrun(name), pid) << name;
}

TEST_F(System, ProcessesAreSignalledByName) {
    const board::NamedProcess first("target"), second("target"), tagged("tagged"), other("twin");
    my_killproc("target", SIGTERM);
    for (const board::NamedProcess *ended : {&first, &second}) EXPECT_EQ(board::wait(ended->pid()), -SIGTERM);
    my_killproc_retry("tagged", 0, 1000);     // fails, and is given up in the end
    my_killproc_retry("tagged", 1, SIGTERM);  // another tag
    my_killproc_retry("tagged", 0, SIGUSR1);
    EXPECT_EQ(board::wait(tagged.pid()), -SIGUSR1);
    const auto killTwins = [](void (*killAll)(const char *, int)) {
        return board::wait(board::fork([killAll] {
            std::ofstream("/proc/self/comm") << "twin";
            killAll("twin", SIGKILL);
        }));
    };
    EXPECT_EQ(killTwins(my_killproc_others), 0);
    EXPECT_EQ(board::wait(other.pid()), -SIGKILL);
    if (board::kEmulated) return;
    EXPECT_EQ(killTwins(my_killproc), -SIGKILL);
}

TEST_F(System, FilesAreCopiedWithModesAndTimes) {
    const std::string content(10000, 'x');
    board::writeFile("/tmp/from/sub/file", content);
    board::writeFile("/tmp/from/.empty", "");
    board::writeFile("/tmp/to/kept", "old");
    const timespec times[2] = {{1000, 0}, {2000, 0}};
    utimensat(AT_FDCWD, "/tmp/from/sub/file", times, 0);
    chmod("/tmp/from/sub/file", 04751);
    chmod("/tmp/from/sub", 0500);
    my_cp("/tmp/from", "/tmp/to");
    EXPECT_EQ(board::readFile("/tmp/to/sub/file"), content);
    EXPECT_TRUE(board::exists("/tmp/to/.empty") && board::exists("/tmp/to/kept"));
    EXPECT_EQ(fs::status("/tmp/to/sub/file").permissions(), fs::perms(04751));
    EXPECT_EQ(fs::status("/tmp/to/sub").permissions(), fs::perms(0500));
    EXPECT_EQ(fs::last_write_time("/tmp/to/sub/file"), fs::last_write_time("/tmp/from/sub/file"));

    fs::create_symlink("/tmp/to/kept", "/tmp/link");
    my_cp("/tmp/from/sub/file", "/tmp/link");
    EXPECT_FALSE(fs::is_symlink("/tmp/link")) << "it is replaced";
    my_cp("/tmp/to/kept", "/tmp/to/kept");
    EXPECT_EQ(board::readFile("/tmp/to/kept"), "old");
    unreadable = true;
    my_cp("/tmp/from", "/tmp/copied");
    my_rm("/tmp/to");
    EXPECT_TRUE(fs::is_empty("/tmp/copied") && board::exists("/tmp/to/kept")) << "nothing is in them";
    EXPECT_EQ(my_procisrun("syslogd"), -1);
    unreadable = false;
    EXPECT_THAT(board::log(), IsEmpty()) << "no shell was needed";
    for (auto *operation : {my_cp, my_mv}) {
        operation(nullptr, "/tmp/x");
        operation("/tmp/link", nullptr);
    }
}

// What the native operations refuse goes to the shell, quoted unless the shell is to expand it.
TEST_F(System, FilesAreLeftToTheShellOtherwise) {
    for (const char *file : {"a.img", "b.img", "blank name"}) board::writeFile("/tmp/"s + file, file);
    fs::create_symlink("a.img", "/tmp/link");
    fs::create_directory("/tmp/x");
    my_cp("/tmp/link", "/tmp/link2");
    my_cp("/tmp/*.img", "/tmp/x");
    my_mv("/tmp/blank name", "/tmp/moved");
    my_mv("/tmp/*.img", "/tmp/x*");
    my_mv("/tmp/none", "/tmp/x");
    my_rm("/tmp/x/%s*", "b");
    my_rm("/tmp/none");
    EXPECT_TRUE(fs::is_symlink("/tmp/link2"));
    EXPECT_EQ(board::readFile("/tmp/moved") + board::readFile("/tmp/x/a.img"), "blank namea.img");
    EXPECT_FALSE(board::exists("/tmp/x/b.img"));
    EXPECT_THAT(board::log(),
                ElementsAre("/bin/cp -af \"/tmp/link\" \"/tmp/link2\"", "/bin/cp -af /tmp/*.img \"/tmp/x\"",
                            "/bin/mv -f /tmp/*.img /tmp/x*", "/bin/mv -f \"/tmp/none\" \"/tmp/x\"",
                            "/bin/rm -rf /tmp/x/b*", "/bin/rm -rf \"/tmp/none\""));
}

TEST_F(System, TreesAreRemoved) {
    for (const char *file : {"/tmp/tree/sub/.file", "/etc/kept"}) board::writeFile(file, "x");
    fs::create_symlink("/etc", "/tmp/tree/link");
    my_rm("/tmp/%s%s", "tr", "ee");
    EXPECT_FALSE(board::exists("/tmp/tree"));
    EXPECT_TRUE(board::exists("/etc/kept")) << "a link is removed, not followed";
    EXPECT_THAT(board::log(), IsEmpty());
}

TEST(Paths, AreJoinedAndHeldInThirtyTwoBuffers) {
    const char *const cases[][3] = {{"/a/", "/b", "/a/b"}, {"/a", "//b", "/a/b"}, {"a", "", "a/"}, {"", "b", "/b"}};
    for (const auto &[directory, name, path] : cases) {
        const std::unique_ptr<char, decltype(&free)> joined(concat_path_file(directory, name), free);
        EXPECT_STREQ(joined.get(), path);
    }
    std::vector<char *> results;
    for (int i = 0; i < 32; ++i) results.push_back(M("%d", i));
    for (size_t i = 0; i < 32; ++i) EXPECT_EQ(results[i], std::to_string(i));
    EXPECT_EQ(M("%s", std::string(600, 'x').c_str()), std::string(511, 'x'));
    EXPECT_EQ(results[0], std::string(511, 'x')) << "used again";
}

TEST_F(System, CommandsAreRunAndLogged) {
    EXPECT_EQ(WEXITSTATUS(my_system("echo %s > /tmp/out; exit 3", "a")), 3);
    EXPECT_EQ(board::readFile("/tmp/out"), "a\n");
    EXPECT_THAT(board::log(), ElementsAre("echo a > /tmp/out; exit 3"));
    const std::string longLine(300, 'x');
    const std::pair<std::string, std::vector<std::string>> inDebugMode[] = {
        {"echo a >/tmp/f; echo b > /dev/null", {"echo a 2>&1", "      msg: a"}},
        {"echo a /dev/null", {"echo a /dev/null", "      msg: a /dev/null"}},
        {"echo a >&2; echo one; printf ab", {"echo a >&2; echo one; printf ab", "      msg: one", "      msg: a"}},
        {"echo " + longLine,  // a piece of 255 characters loses its last one, like every piece
         {"echo " + longLine, "      msg: " + longLine.substr(0, 254), "      msg: " + longLine.substr(0, 45)}}};
    for (const auto &[line, log] : inDebugMode) {
        SetUp();
        board::writeFile("/var/debug", "");
        EXPECT_EQ(my_system("%s", line.c_str()), -1);
        EXPECT_EQ(board::log(), log) << line;
    }
}

// What a connect with a new socket leaves: result, error (0 with success), and whether the socket blocks.
using Outcome = std::tuple<int, int, bool>;

Outcome tryConnect(const char *host, uint16_t port, int seconds) {
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    inet_aton(host, &to.sin_addr);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    const int result = my_connect_t(client, reinterpret_cast<const sockaddr *>(&to), sizeof to, seconds);
    const int error = result != 0 ? errno : 0;
    const bool blocks = (fcntl(client, F_GETFL) & O_NONBLOCK) == 0;
    close(client);
    EXPECT_EQ(my_connect_t(-1, reinterpret_cast<const sockaddr *>(&to), sizeof to, 1), -1);
    return {result, error, blocks};
}

TEST_F(System, ConnectsWithinATimeLimit) {
    const Outcome refused = tryConnect("127.0.0.1", 5000, 1);
    EXPECT_EQ(refused, Outcome(-1, board::kEmulated ? std::get<1>(refused) : ECONNREFUSED, false));
    board::run("nc -l -p 5000 > /dev/null 2>&1 &");
    EXPECT_TRUE(board::waitFor(10, [] { return tryConnect("127.0.0.1", 5000, 0) == Outcome(0, 0, true); }));
    // The station's network swallows what goes to an address it was told to drop.
    board::run("ip link set eth0 up; ip addr add 192.168.1.1/24 dev eth0; ip route add 10.9.9.9 via 192.168.1.2");
    board::run("station ip route add blackhole 10.9.9.9");
    EXPECT_EQ(tryConnect("10.9.9.9", 80, 1), Outcome(-1, EINPROGRESS, false)) << "the time limit";
    board::run("station ip route del blackhole 10.9.9.9; ip addr flush dev eth0");
}

}  // namespace
