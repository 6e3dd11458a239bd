#include "support/process_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "support/shell.h"
#include "tests/native_board.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

namespace fs = std::filesystem;

std::vector<pid_t> findAll(const char *name) {
    const std::unique_ptr<my_proc, decltype(&my_freeproc)> chain(my_findproc(name), my_freeproc);
    std::vector<pid_t> pids;
    for (const my_proc *process = chain.get(); process != nullptr; process = process->next) {
        EXPECT_EQ(process->state, 'S');
        EXPECT_EQ(process->tag, 0U);
        pids.push_back(process->pid);
    }
    return pids;
}

class Processes : public board::NativeBoardTest {};

TEST_F(Processes, AreFoundByTheirWholeName) {
    const board::NamedProcess first("target");
    const board::NamedProcess second("target");
    const board::NamedProcess other("target2");
    const board::NamedProcess odd("a) S (b");
    const board::NamedProcess cut("sixteen-letters-");
    EXPECT_THAT(findAll("target"), UnorderedElementsAre(first.pid(), second.pid()));
    EXPECT_THAT(findAll("targe"), IsEmpty());
    EXPECT_THAT(findAll("Target"), IsEmpty());
    EXPECT_THAT(my_procisrun("target"), testing::AnyOf(first.pid(), second.pid()));
    EXPECT_EQ(my_procisrun("a) S (b"), odd.pid());
    EXPECT_EQ(my_procisrun("sixteen-letters-"), -1) << "the kernel keeps 15 characters";
    EXPECT_EQ(my_procisrun("sixteen-letters"), cut.pid());
    EXPECT_EQ(my_procisrun("nobody"), -1);
}

TEST_F(Processes, AreSignalledByName) {
    board::NamedProcess first("target");
    board::NamedProcess second("target");
    const board::NamedProcess spared("spared");
    my_killproc("target", SIGTERM);
    EXPECT_EQ(first.waitForEnd(), -SIGTERM);
    EXPECT_EQ(second.waitForEnd(), -SIGTERM);
    EXPECT_EQ(kill(spared.pid(), 0), 0);

    board::NamedProcess third("target");
    my_killproc_retry("target", 1, SIGTERM);
    EXPECT_EQ(kill(third.pid(), 0), 0) << "another tag";
    my_killproc_retry("target", 0, SIGTERM);
    EXPECT_EQ(third.waitForEnd(), -SIGTERM);
}

TEST_F(Processes, OthersLeavesTheCallerOut) {
    board::NamedProcess other("twin");
    const pid_t child = board::fork([] {
        std::ofstream("/proc/self/comm") << "twin";
        my_killproc_others("twin", SIGTERM);
    });
    EXPECT_EQ(board::wait(child), 0);
    EXPECT_EQ(other.waitForEnd(), -SIGTERM);
    if (board::kEmulated) return;
    const pid_t itself = board::fork([] {
        std::ofstream("/proc/self/comm") << "twin";
        my_killproc("twin", SIGTERM);
    });
    EXPECT_EQ(board::wait(itself), -SIGTERM);
}

TEST(ConcatPathFile, PutsOneSlashBetween) {
    const char *const cases[][3] = {{"/a/", "/b", "/a/b"}, {"/a", "//b", "/a/b"}, {"/a", "b", "/a/b"},
                                    {"/", "b", "/b"},      {"a", "", "a/"},       {"", "b", "/b"}};
    for (const auto &[directory, name, path] : cases) {
        const std::unique_ptr<char, decltype(&free)> joined(concat_path_file(directory, name), free);
        EXPECT_STREQ(joined.get(), path);
    }
}

class Files : public board::NativeBoardTest {
protected:
    static mode_t modeOf(const std::string &path) {
        struct stat status = {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777;
    }
};

TEST_F(Files, TreesAreCopiedWithModesAndTimes) {
    const std::string content(10000, 'x');
    board::writeFile("/tmp/from/sub/file", content);
    board::writeFile("/tmp/from/empty", "");
    chmod("/tmp/from/sub/file", 04751);
    chmod("/tmp/from/sub", 0500);
    const timespec times[2] = {{1000, 0}, {2000, 0}};
    utimensat(AT_FDCWD, "/tmp/from/sub/file", times, 0);
    my_cp("/tmp/from", "/tmp/to");
    EXPECT_EQ(board::readFile("/tmp/to/sub/file"), content);
    EXPECT_TRUE(board::exists("/tmp/to/empty"));
    EXPECT_EQ(modeOf("/tmp/to/sub/file"), 04751U);
    EXPECT_EQ(modeOf("/tmp/to/sub"), 0500U);
    struct stat status = {};
    stat("/tmp/to/sub/file", &status);
    EXPECT_EQ(status.st_mtime, 2000);
    EXPECT_THAT(board::logTexts(), IsEmpty()) << "no shell was needed";
}

TEST_F(Files, CopyReplacesTheDestination) {
    board::writeFile("/tmp/new", "new");
    board::writeFile("/tmp/kept", "old");
    fs::create_symlink("/tmp/kept", "/tmp/link");
    my_cp("/tmp/new", "/tmp/link");
    EXPECT_FALSE(fs::is_symlink("/tmp/link"));
    EXPECT_EQ(board::readFile("/tmp/link"), "new");
    EXPECT_EQ(board::readFile("/tmp/kept"), "old");
    my_cp("/tmp/new", "/tmp/new");
    EXPECT_EQ(board::readFile("/tmp/new"), "new") << "onto itself";
    my_cp(nullptr, "/tmp/x");
    my_cp("/tmp/new", nullptr);
}

// What the native operations refuse goes to the shell, quoted unless the shell is to expand it.
TEST_F(Files, TheShellDoesTheRest) {
    board::writeFile("/tmp/a.img", "a");
    board::writeFile("/tmp/b.img", "b");
    board::writeFile("/tmp/blank name", "c");
    fs::create_symlink("a.img", "/tmp/link");
    fs::create_directory("/tmp/x");
    my_cp("/tmp/link", "/tmp/link2");
    my_cp("/tmp/*.img", "/tmp/x");
    my_mv("/tmp/blank name", "/tmp/moved");
    my_mv("/tmp/*.img", "/tmp/x*");
    my_cp("/tmp/none", "/tmp/x*");
    my_mv("/tmp/none", "/tmp/x");
    my_rm("/tmp/x/%s*", "b");
    my_rm("/tmp/none");
    EXPECT_TRUE(fs::is_symlink("/tmp/link2"));
    EXPECT_EQ(board::readFile("/tmp/moved"), "c");
    EXPECT_EQ(board::readFile("/tmp/x/a.img"), "a");
    EXPECT_FALSE(board::exists("/tmp/x/b.img"));
    EXPECT_THAT(
        board::logTexts(),
        ElementsAre("/bin/cp -af \"/tmp/link\" \"/tmp/link2\"", "/bin/cp -af /tmp/*.img \"/tmp/x\"",
                    "/bin/mv -f /tmp/*.img /tmp/x*", "/bin/cp -af \"/tmp/none\" /tmp/x*",
                    "/bin/mv -f \"/tmp/none\" \"/tmp/x\"", "/bin/rm -rf /tmp/x/b*", "/bin/rm -rf \"/tmp/none\""));
}

TEST_F(Files, TreesAreRemoved) {
    board::writeFile("/tmp/tree/sub/file", "x");
    fs::create_symlink("/etc", "/tmp/tree/link");
    board::writeFile("/tmp/a_b", "x");
    board::writeFile("/etc/kept", "x");
    my_rm("/tmp/%s", "tree");
    my_rm("/tmp/%s_%s", "a", "b");
    EXPECT_FALSE(board::exists("/tmp/tree"));
    EXPECT_FALSE(board::exists("/tmp/a_b"));
    EXPECT_TRUE(board::exists("/etc/kept")) << "a link is removed, not followed";
    EXPECT_THAT(board::logTexts(), IsEmpty());
}

}  // namespace
