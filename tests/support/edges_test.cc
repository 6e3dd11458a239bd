// Where the support library meets what others do to it: a turn that is taken away, a file that cannot be replaced,
// values that come from where they go, a tree that changes under its walk.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "support/configuration.h"
#include "support/containers.h"
#include "tests/native_board.h"

using namespace std::string_literals;

namespace {

const std::string kSettings = "#& 3\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\nK = \"a value\"\n";
const std::string kTemporary = kPersistentConfiguration + ".new"s;

class Edges : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        for (const char *file : {kDefaultConfiguration, kPersistentConfiguration}) board::writeFile(file, kSettings);
        ASSERT_NE(init_configuration(), nullptr);
    }
};

// 1 while a process has its turn at the table, -1 when there is no semaphore.
int turn() { return semctl(semget(kConfigurationKey, 1, 0777), 0, GETVAL); }

// A process that loads the table twice stands still in its turn each time: the file that it reads is a pipe.
TEST_F(Edges, ATurnThatWasTakenAwayIsTakenAnew) {
    board::writeFile(kPersistentConfiguration, "");
    std::filesystem::remove(kDefaultConfiguration);
    ASSERT_EQ(mkfifo(kDefaultConfiguration, 0600), 0);
    const pid_t loader = board::fork([] {
        init_configuration();
        init_configuration();
    });
    int pipe = -1;
    const auto isInItsTurn = [&] {
        pipe = open(kDefaultConfiguration, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (pipe < 0 || turn() == 1) return pipe >= 0;
        close(pipe);
        return false;
    };
    ASSERT_TRUE(board::waitFor(10, isInItsTurn));
    semctl(semget(kConfigurationKey, 1, 0777), 0, IPC_RMID);
    close(pipe);
    EXPECT_TRUE(board::waitFor(10, isInItsTurn));
    close(pipe);
    EXPECT_EQ(board::wait(loader), 0);
}

TEST_F(Edges, ASaveThatCannotReplaceTheFileChangesNothing) {
    ASSERT_EQ(mount(kPersistentConfiguration, kPersistentConfiguration, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(save_configuration("K", "new"), -1) << "a mount point cannot be moved over";
    umount(kPersistentConfiguration);
    EXPECT_EQ(board::readFile(kPersistentConfiguration), kSettings);
    EXPECT_STREQ(RETURN_DEF_STR("K"), "a value");
    EXPECT_FALSE(board::exists(kTemporary));

    board::writeFile(kTemporary, "somebody else's");
    std::filesystem::remove(kPersistentConfiguration);
    std::filesystem::remove(kDefaultConfiguration);
    EXPECT_EQ(save_configuration("K", "new"), -1) << "there is nothing to save to";
    EXPECT_EQ(board::readFile(kTemporary), "somebody else's");
}

TEST_F(Edges, AValueMayComeFromTheTable) {
    EXPECT_EQ(set_configuration("K", RETURN_DEF_STR("K")), 0);
    EXPECT_EQ(set_configuration("K", RETURN_DEF_STR("K") + 2), 0);
    EXPECT_STREQ(RETURN_DEF_STR("K"), "value");
}

// The visitor of the first value adds another one, which becomes the root; the root that the walk began at ends it.
TEST(Walk, TellsTheRootThatItBeganAt) {
    struct Visit {
        bt_tree *tree;
        char first[2] = "a", root[2] = "b", added[2] = "c";
    } visit;
    visit.tree = bt_init([](const void *a, const void *b) {
        const int order = strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
        return (order > 0) - (order < 0);
    });
    bt_add(visit.tree, visit.first);
    bt_add(visit.tree, visit.root);
    const container_visit add = [](void *value, void *argument) {
        Visit *const walk = static_cast<Visit *>(argument);
        if (value == walk->first) bt_add(walk->tree, walk->added);
        return value == walk->root ? 0 : 1;
    };
    EXPECT_EQ(bt_traverse(visit.tree, 0, BT_POST_ORDER, add, &visit), visit.root);
    bt_free(visit.tree);
}

}  // namespace
