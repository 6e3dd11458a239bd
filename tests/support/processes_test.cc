// The shell runner, processes, files and connections.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "support/process_file.h"
#include "support/shell.h"
#include "tests/board.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::ElementsAre, testing::IsEmpty, testing::UnorderedElementsAre;

// The next `emptyWrites` writes take nothing. Of the others every second is interrupted by a signal before it writes.
// While `unreadable` is set, no directory can be opened.
int emptyWrites = 0;
extern "C" ssize_t __real_write(int file, const void *data, size_t length);
extern "C" ssize_t __wrap_write(int file, const void *data, size_t length) {
    static int writes = 0;
    if (emptyWrites > 0) return --emptyWrites, 0;
    errno = EINTR;
    return ++writes % 2 == 0 ? -1 : __real_write(file, data, length);
}

bool unreadable = false;
extern "C" DIR *__real_opendir(const char *path);
extern "C" DIR *__wrap_opendir(const char *path) { return unreadable ? nullptr : __real_opendir(path); }

// Ends a wait at once. Records its limit, and expects it to be for one socket alone.
long waited = 0;  // seconds
extern "C" int __wrap_select(int count, fd_set *, fd_set *out, fd_set *bad, const timeval *limit) {
    fd_set last = {};
    FD_SET(count - 1, &last);
    for (const fd_set *set : {out, bad}) EXPECT_EQ(memcmp(set, &last, sizeof last), 0);
    waited = limit->tv_sec;
    return 0;
}

namespace {

class System : public board::BoardTest {};

TEST_F(System, ProcessesAreFoundAndSignalledByTheirWholeName) {
    const board::NamedProcess first("target"), second("target"), longer("target2"), odd("a) S (b"), other("twin");
    const board::NamedProcess cut("sixteen-letters-");  // the kernel keeps 15
    std::vector<pid_t> pids;
    my_proc *const chain = my_findproc("target");
    for (const my_proc *process = chain; process != nullptr; process = process->next) {
        EXPECT_TRUE(process->state == 'S' && process->tag == 0);
        pids.push_back(process->pid);
    }
    my_freeproc(chain);
    EXPECT_THAT(pids, UnorderedElementsAre(first.pid(), second.pid()));
    const std::pair<const char *, pid_t> cases[] = {
        {"target2", longer.pid()},     {"targe", -1}, {"Target", -1}, {"a) S (b", odd.pid()}, {"sixteen-letters-", -1},
        {"sixteen-letters", cut.pid()}};
    for (const auto &[name, pid] : cases) EXPECT_EQ(my_procisrun(name), pid) << name;

    my_killproc("target", SIGTERM);
    for (const board::NamedProcess *ended : {&first, &second}) EXPECT_EQ(board::wait(ended->pid()), -SIGTERM);
    my_killproc_retry("target2", 0, 1000);     // no such signal: fails every time
    my_killproc_retry("target2", 1, SIGTERM);  // another tag
    my_killproc_retry("target2", 0, SIGUSR1);
    EXPECT_EQ(board::wait(longer.pid()), -SIGUSR1);
    const auto killTwins = [](void (*killAll)(const char *, int)) {
        return board::wait(board::fork([killAll] {
            std::ofstream("/proc/self/comm") << "twin";
            killAll("twin", SIGKILL);
        }));
    };
    EXPECT_EQ(killTwins(my_killproc_others), 0);
    EXPECT_EQ(board::wait(other.pid()), -SIGKILL);
    EXPECT_EQ(killTwins(my_killproc), board::kEmulated ? 0 : -SIGKILL);
}

TEST_F(System, TreesAreCopiedWithModesAndTimesAndRemoved) {
    const std::string content(10000, 'x');
    board::writeFile("/tmp/from/sub/file", content, 04751);
    board::writeFile("/tmp/from/.empty", "");
    board::writeFile("/tmp/to/kept", "old");
    const timespec times[2] = {{1000, 0}, {2000, 0}};
    utimensat(AT_FDCWD, "/tmp/from/sub/file", times, 0);
    chmod("/tmp/from/sub", 0500);
    const auto withoutPrivileges = [] {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        const __user_cap_data_struct none[2] = {};
        EXPECT_EQ(syscall(SYS_capset, &header, none), 0);
        my_cp("/tmp/from", "/tmp/to");
    };
    EXPECT_EQ(board::wait(board::fork(withoutPrivileges)), 0);
    my_cp("/tmp/from", "/tmp/to");  // once more, in a process that the leak check covers
    EXPECT_EQ(board::readFile("/tmp/to/sub/file"), content);
    EXPECT_TRUE(board::exists("/tmp/to/.empty") && board::exists("/tmp/to/kept"));
    EXPECT_EQ(fs::status("/tmp/to/sub/file").permissions(), fs::perms(04751));
    EXPECT_EQ(fs::status("/tmp/to/sub").permissions(), fs::perms(0500));
    EXPECT_EQ(fs::last_write_time("/tmp/to/sub/file"), fs::last_write_time("/tmp/from/sub/file"));

    fs::create_symlink("/tmp/to/kept", "/tmp/link");
    my_cp("/tmp/from/sub/file", "/tmp/link");
    EXPECT_FALSE(fs::is_symlink("/tmp/link")) << "the link is replaced";
    my_cp("/tmp/to/kept", "/tmp/to/kept");
    EXPECT_EQ(board::readFile("/tmp/to/kept"), "old");
    unreadable = true;
    my_cp("/tmp/from", "/tmp/copied");
    my_rm("/tmp/to");
    EXPECT_TRUE(fs::is_empty("/tmp/copied") && board::exists("/tmp/to/kept")) << "they count as empty";
    EXPECT_EQ(my_procisrun("syslogd"), -1);
    unreadable = false;
    fs::create_symlink("/etc", "/tmp/to/sub/link");
    my_rm("/tmp/%s%s", "t", "o");
    EXPECT_FALSE(board::exists("/tmp/to"));
    EXPECT_TRUE(board::exists("/etc/passwd")) << "a link is removed, not followed";
    EXPECT_THAT(board::log(), IsEmpty()) << "no shell was needed";
    for (auto *operation : {my_cp, my_mv}) {
        operation(nullptr, "/tmp/x");
        operation("/tmp/link", nullptr);
    }
}

// The shell does what the native operations cannot. Arguments are quoted unless the shell must expand them.
TEST_F(System, TheShellDoesWhatFailsNatively) {
    for (const char *file : {"a.img", "b.img", "blank name"}) board::writeFile("/tmp/"s + file, file);
    fs::create_symlink("a.img", "/tmp/link");
    fs::create_directory("/tmp/x");
    emptyWrites = 2;
    my_cp("/tmp/b.img", "/tmp/full");
    EXPECT_EQ(emptyWrites, 1) << "a write that takes nothing is not retried";
    emptyWrites = 0;
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
    EXPECT_THAT(
        board::log(),
        ElementsAre("/bin/cp -af \"/tmp/b.img\" \"/tmp/full\"", "/bin/cp -af \"/tmp/link\" \"/tmp/link2\"",
                    "/bin/cp -af /tmp/*.img \"/tmp/x\"", "/bin/mv -f /tmp/*.img /tmp/x*",
                    "/bin/mv -f \"/tmp/none\" \"/tmp/x\"", "/bin/rm -rf /tmp/x/b*", "/bin/rm -rf \"/tmp/none\""));
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
        {"echo " + longLine,  // each piece of 255 characters loses its last character
         {"echo " + longLine, "      msg: " + longLine.substr(0, 254), "      msg: " + longLine.substr(0, 45)}}};
    for (const auto &[line, log] : inDebugMode) {
        SetUp();
        board::writeFile("/var/debug", "");
        EXPECT_EQ(my_system("%s", line.c_str()), -1);
        EXPECT_EQ(board::log(), log) << line;
    }
}

// No host answers at this address. The tests of the service cover everything else about connections.
TEST_F(System, ConnectsWithinATimeLimit) {
    board::run("ip link set eth0 up; ip addr add 192.168.1.1/24 dev eth0");
    const sockaddr_in to = {AF_INET, htons(80), {inet_addr("192.168.1.77")}, {}};
    for (const auto &[seconds, limit] : {std::pair(1, 1), {0, 60}}) {
        const int client = socket(AF_INET, SOCK_STREAM, 0);  // left open, so that the second one gets another number
        EXPECT_EQ(my_connect_t(client, reinterpret_cast<const sockaddr *>(&to), sizeof to, seconds), -1);
        EXPECT_EQ(errno, EINPROGRESS);
        EXPECT_EQ(waited, limit);
    }
    EXPECT_EQ(my_connect_t(-1, nullptr, 0, 1), -1);
    board::run("ip addr flush dev eth0");
}

}  // namespace
