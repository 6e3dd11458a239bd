#include "support/configuration.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <thread>

#include "tests/board.h"

using namespace std::string_literals;
using testing::AllOf, testing::ElementsAre, testing::HasSubstr, testing::IsEmpty, testing::Not;

// The call that fails, after so many that succeed.
struct {
    std::string_view call;
    int passing;
} failing;

// The next so many calls of usleep are interrupted at once; the last of them releases the table's lock.
int interruptedPauses = 0;
extern "C" int __real_usleep(useconds_t pause);
extern "C" int __wrap_usleep(useconds_t pause) {
    if (interruptedPauses == 0) return __real_usleep(pause);
    if (--interruptedPauses == 0) pthread_mutex_unlock(&get_configuration()->lock);
    errno = EINTR;
    return -1;
}

#define CALL(result, failure, name, parameters, arguments)                  \
    extern "C" result __real_##name parameters;                             \
    extern "C" result __wrap_##name parameters {                            \
        const bool fails = failing.call == #name && failing.passing-- == 0; \
        return fails ? (failure) : __real_##name arguments;                 \
    }

CALL(int, -1, fsync, (int file), (file))
CALL(int, -1, semget, (key_t key, int count, int flags), (key, count, flags))
CALL(int, -1, vasprintf, (char **text, const char *format, va_list arguments), (text, format, arguments))
CALL(void *, nullptr, calloc, (size_t count, size_t size), (count, size))
CALL(void *, nullptr, malloc, (size_t size), (size))

namespace {

const std::string kHeader = "#& 3\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\n";
constexpr size_t kHeaderRecords = 2;
constexpr size_t kRoom = kConfigurationCapacity - kHeaderRecords;

std::string records(size_t number) {
    std::string text;
    for (size_t i = 0; i < number; ++i) text += "R" + std::to_string(i) + " = " + std::to_string(i) + "\n";
    return text;
}

// Returns the keys' values, each followed by a '|'; '-' for a missing key.
std::string values(const std::vector<std::string> &keys) {
    std::string text;
    for (const std::string &key : keys) text += (if_exist(key.c_str()) ? RETURN_DEF_STR(key.c_str()) : "-") + "|"s;
    return text;
}

class Configuration : public board::BoardTest {
protected:
    // Loads `text`, after a header, as the persistent file; the header alone is the default file.
    static void load(const std::string &text) {
        board::writeFile(kDefaultConfiguration, kHeader);
        board::writeFile(kPersistentConfiguration, kHeader + text);
        ASSERT_NE(init_configuration(), nullptr);
    }

    static size_t count() { return static_cast<size_t>(get_configuration()->count); }
    static std::string file() { return board::readFile(kPersistentConfiguration); }

    // Expects that saving fails and leaves the file unchanged.
    static void expectRefusal(const char *why) {
        const std::string before = file();
        EXPECT_EQ(save_configuration("K", "2"), -1) << why;
        EXPECT_EQ(file(), before) << why;
        EXPECT_FALSE(board::exists(kPersistentConfiguration + ".new"s)) << why;
    }
};

TEST_F(Configuration, LinesAreReadByTheirSyntax) {
    load("# NO = 1\n  NO = 1\n\tNO = 1\n\nNO =\nNO = \"open\nNO = v \"open\nA = \"a b\"\nB : plain more words\n"
         "C = \"a\\\"b\\\\\"\nD = a b c d e f g h i j k l\nE\t=\tv\r\nF = \nY = yes\nCAP = Y\nN = 1\nI = -12abc\n"
         "HEX = 0x10\nU = 4294967295\nMORE = 4294967296\n" +
         std::string(40, 'K') + " = " + std::string(70, 'v') + "\nLAST = \"end\"");
    EXPECT_THAT(board::log(), ElementsAre(HasSubstr(std::string(31, 'K')))) << "a value that is cut";
    EXPECT_EQ(
        values({"NO", "#", "a", "A", "B", "C", "D", "E", "F", "LAST", std::string(31, 'K'), std::string(40, 'K')}),
        "-|-|-|a b|plain|a\"b\\|a|v||end|" + std::string(63, 'v') + "|-|");
    EXPECT_THAT((std::vector{IF_DEFINE("Y"), IF_DEFINE("CAP"), IF_DEFINE("N"), IF_DEFINE("none"), if_exist("N"),
                             if_exist("none"), RETURN_DEF_INT("I"), RETURN_DEF_INT("HEX"), RETURN_DEF_INT("none")}),
                ElementsAre(1, 1, 0, 0, 1, 0, -12, 0, 0));
    EXPECT_THAT((std::vector{RETURN_DEF_UINT("U"), RETURN_DEF_UINT("MORE"), RETURN_DEF_UINT("none")}),
                ElementsAre(UINT32_MAX, UINT32_MAX, 0));
}

// Equal keys keep the order of the file in the table. The probe order decides between them: the search begins at n/2.
TEST_F(Configuration, TheProbeOrderDecidesBetweenEqualKeys) {
    load("K = 1\nK = 2\nK = 3\n");
    EXPECT_EQ(values({"K"}), "3|") << "K K K SYSTEM_BRAND SYSTEM_MODEL: the third";
    load("K = 1\nK = 2\nK = 3\nA = 0\nB = 0\nC = 0\n");
    EXPECT_EQ(values({"K"}), "2|") << "A B C K K K and two more: the fifth";
}

// A case has the version and model of the default file, then the line and the number of the persistent file's version
// (its model is M), and then the loaded identity, file and version.
TEST_F(Configuration, ANewerOrOtherDefaultReplacesTheFile) {
    const std::tuple<std::string, const char *, int, const char *, const char *> cases[] = {
        {"3", "M", 3, "3", "B_M old|3"},
        {"4", "M", 3, "3", "B_M new|4"},
        {"2", "M", 3, "3", "B_M old|3"},
        {"1", "N", 3, "3", "B_N new|1"},
        {"1", "M", 10, "9", "B_M old|9"},
        {"1", "M", 11, "9", "B_M new|1"},
        {"4294967295", "M", 3, "3", "B_M new|4294967295"}};
    for (const auto &[version, model, line, persistent, loaded] : cases) {
        const std::string brand = "SYSTEM_BRAND = B\nSYSTEM_MODEL = ", padding(static_cast<size_t>(line) - 3, '\n');
        board::writeFile(kDefaultConfiguration, brand + model + "\n#& " + version + "\nFROM = new\n");
        board::writeFile(kPersistentConfiguration, padding + brand + "M\n#& " + persistent + "\nFROM = old\n");
        const ConfigurationSegment *const segment = init_configuration();
        EXPECT_EQ(segment->identity + " "s + values({"FROM"}) + std::to_string(segment->version), loaded);
    }
}

TEST_F(Configuration, OpeningLoadsOnlyWhatNothingHasLoaded) {
    board::writeFile(kDefaultConfiguration, kHeader + "K = v\n");
    open_configuration();
    add_configuration("MAC", "recorded");
    open_configuration();
    EXPECT_EQ(values({"K", "MAC"}), "v|recorded|");
    // Other programs rely on this layout of the segment.
    const int id = shmget(0x20120422, 12868, 0);
    shmid_ds status = {};
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0777);
    const char *const record = static_cast<char *>(shmat(id, nullptr, SHM_RDONLY)) + sizeof(pthread_mutex_t) + 44;
    EXPECT_EQ(record + 4 + "="s + (record + 36), "K=v");
    get_configuration()->count = 0;
    open_configuration();
    EXPECT_EQ(count(), 0U) << "loaded and then emptied by another program";
    std::filesystem::remove_all("/etc/sysconfig");
    init_configuration();
    EXPECT_EQ(set_configuration("K", "v") + del_configuration("K") + save_configuration("K", "v"), -3);
}

// The fuzz targets look for writes outside the table.
TEST_F(Configuration, FilesOfAnySizeAndContentStayInsideTheTable) {
    const std::string piece(3095, 'x');
    const std::tuple<const char *, std::string, size_t, size_t> cases[] = {
        {"a full table", records(kRoom), kRoom, 0},
        {"one record too many", records(kRoom + 1), kRoom, 1},
        {"100,000 records", records(100000), kRoom, 1},
        {"long lines, read in pieces", piece + "# = 1\n" + piece + "A = 1\n", 1, 0},
        {"NUL bytes", "A = 1\0B = 2\nC\0 = 3\n\0\0\0\nD = 4\n"s, 2, 0},
        {"unclosed quotes", "A = \"x\nB \"= y\n\"C = z\nD = \"\\\"\nE = 1\n", 1, 0},
        {"a long key in quotes", "\"" + std::string(3000, 'k') + "\" = v\nA = 1\n", 2, 0}};
    for (const auto &[what, text, added, logged] : cases) {
        SetUp();
        load(text);
        EXPECT_EQ(count(), added + kHeaderRecords) << what;
        EXPECT_EQ(board::log().size(), logged) << what;
        for (size_t i = 0; i < count(); ++i) EXPECT_EQ(get_configuration()->table[i].index, i) << what;
    }
}

TEST_F(Configuration, SettersChangeTheTableOnly) {
    load("B = 1\nD = 1\nZ = 1\n");
    EXPECT_EQ(add_configuration("C", "new"), 0);
    EXPECT_EQ(add_configuration("B", std::string(70, 'v').c_str()), 0);
    EXPECT_EQ(add_configuration("D", nullptr), 0);
    EXPECT_EQ(set_configuration("C", "newer"), 0);
    EXPECT_EQ(set_configuration("E", "1"), -1);
    EXPECT_EQ(del_configuration("SYSTEM_MODEL"), 0) << "the last but one";
    EXPECT_EQ(values({"B", "C", "D", "E", "SYSTEM_MODEL", "Z"}), std::string(63, 'v') + "|newer|1|-|-|1|");
    EXPECT_EQ(file(), kHeader + "B = 1\nD = 1\nZ = 1\n");
    load(records(kRoom));
    EXPECT_EQ(add_configuration("NEW", "1"), -1) << "the table is full";
    EXPECT_EQ(add_configuration("R5", "2"), 0);
    EXPECT_EQ(values({"R5", "NEW"}), "2|-|");
    EXPECT_THAT(board::log(), ElementsAre(HasSubstr("\"B\" is cut"), HasSubstr("NEW")));
    EXPECT_EQ(set_configuration("R12", RETURN_DEF_STR("R12") + 1), 0);
    EXPECT_EQ(values({"R12"}), "2|") << "a value may come from the table";
    // Records after a deleted one move up, but keep their old index. A deletion goes by the index, so the second one
    // here removes the neighbour.
    load("A = 1\nB = 2\nC = 3\nD = 4\n");
    EXPECT_EQ(del_configuration("A") + del_configuration("C"), 0);
    EXPECT_EQ(values({"A", "B", "C", "D"}), "-|2|3|-|");
    load("A = 1\nB = 2\n");
    for (const char *call : {"malloc", "calloc"}) {
        for (const int passing : {0, 1, 4}) {
            failing = {call, passing};
            EXPECT_EQ(add_configuration("NEW", "1"), -1) << call << passing;
            EXPECT_EQ(values({"A", "B", "NEW"}), "1|2|-|") << call << passing;
        }
    }
}

// Numbers that other programs write must not lead a lookup or a writer out of the segment.
TEST_F(Configuration, AnImpossibleCountOrIndexStaysInsideTheTable) {
    for (const int32_t count : {-1, 1000000, INT32_MIN, INT32_MAX}) {
        load("A = 1\nB = 2\n");
        get_configuration()->count = count;
        EXPECT_EQ(set_configuration("ZZZ", "1") + del_configuration("ZZZ"), -2);
        for (const char *key : {"ZZZ", ""}) add_configuration(key, "1");
    }
    load("A = 1\nB = 2\n");
    get_configuration()->table[0].index = UINT32_MAX;
    EXPECT_EQ(del_configuration("A"), 0);
}

TEST_F(Configuration, SavingRewritesEveryMatchingLineOrAppends) {
    const std::string rest = "K=4\n# K = 5\nN\0 = 6\n"s, longLine = "LONG = " + std::string(10000, 'x') + "\n";
    load("K = 1\nKK = 2\nK = 3\n" + rest + longLine + "E = 7");
    EXPECT_EQ(save_configuration("K", "a b"), 0);
    const std::string saved = kHeader + "K = \"a b\"\nKK = 2\nK = \"a b\"\n" + rest;
    EXPECT_EQ(file(), saved + longLine + "E = 7");
    EXPECT_EQ(values({"K"}), "a b|");
    EXPECT_EQ(save_configuration("LONG", "short"), 0);
    EXPECT_EQ(file(), saved + "LONG = \"short\"\nE = 7");
    load("K = 1\n");
    EXPECT_EQ(save_configuration("NEW", "v"), 0);
    const std::string date = "[A-Z][a-z]+ [A-Z][a-z]+ [ 0-9]+:[0-9]+:[0-9]+ [0-9]+";
    EXPECT_THAT(file(), testing::MatchesRegex(kHeader + "K = 1\n\n#New append - " + date + "\nNEW = \"v\"\n"));
}

TEST_F(Configuration, WhatCannotBeSavedChangesNothing) {
    ASSERT_EQ(mount("tmpfs", "/etc/sysconfig/.firewall", "tmpfs", 0, "size=16k"), 0);
    load("K = 1\n" + std::string(9000, '#') + "\n");
    expectRefusal("the disk is full");
    umount("/etc/sysconfig/.firewall");
    load("K = 1\n");
    for (const char *call : {"fsync", "vasprintf"}) {
        failing = {call, 0};
        expectRefusal(call);
    }
    ASSERT_EQ(mount(kPersistentConfiguration, kPersistentConfiguration, nullptr, MS_BIND, nullptr), 0);
    expectRefusal("a mount point cannot be moved over");
    umount(kPersistentConfiguration);
    EXPECT_EQ(values({"K"}), "1|");
    for (const char *path : {kDefaultConfiguration, kPersistentConfiguration}) std::filesystem::remove(path);
    board::writeFile(kPersistentConfiguration + ".new"s, "somebody else's");
    EXPECT_EQ(save_configuration("K", "2"), -1) << "there is nothing to save to";
    EXPECT_TRUE(board::exists(kPersistentConfiguration + ".new"s));
}

void updateMany(char name, int updates) {
    for (int i = 1; i <= updates; ++i) {
        const std::string key = name + std::to_string(i % 40);
        ASSERT_EQ(add_configuration(key.c_str(), std::to_string(i).c_str()), 0);
    }
}

// A reader takes no lock and may see a table during its rebuild, so the values are read at the end. The lock of a
// holder that died, or of another program of the board, is reset once, by one of the waiting writers.
TEST_F(Configuration, WritersLoseNothingWhetherOrNotTheLockIsGivenBack) {
    for (const bool kept : {false, true}) {
        SetUp();
        load("");
        EXPECT_TRUE(!kept || pthread_mutex_trylock(&get_configuration()->lock) == 0);
        std::vector<pid_t> writers;
        for (const char name : {'A', 'B', 'C'}) writers.push_back(board::fork([=] { updateMany(name, 5000); }));
        for (const pid_t writer : writers) EXPECT_EQ(board::wait(writer), 0);
        EXPECT_EQ(count(), 120 + kHeaderRecords);
        for (int i = 4961; i <= 5000; ++i) {
            const std::string key = std::to_string(i % 40), value = std::to_string(i) + "|";
            EXPECT_EQ(values({"A" + key, "B" + key, "C" + key}), value + value + value);
        }
        EXPECT_TRUE(kept || board::log().empty());
    }
    EXPECT_THAT(board::log(), ElementsAre(HasSubstr("lock")));
}

TEST_F(Configuration, AWriterKilledAtAnyMomentDoesNotStopTheOthers) {
    load("");
    for (int round = 0; round < 10; ++round) {
        const pid_t writer = board::fork([] { updateMany('A', 1000000000); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + 3 * round));
        kill(writer, SIGKILL);
        ASSERT_EQ(board::wait(writer), -SIGKILL);
        ASSERT_EQ(add_configuration("AFTER", std::to_string(round).c_str()), 0);
        ASSERT_EQ(values({"AFTER"}), std::to_string(round) + "|");
    }
}

// A living holder is not declared dead because signals cut the pauses between the polls short.
TEST_F(Configuration, AnInterruptedWaitForTheLockGoesOn) {
    load("");
    ASSERT_EQ(pthread_mutex_trylock(&get_configuration()->lock), 0);
    interruptedPauses = 1000;
    EXPECT_EQ(add_configuration("K", "v"), 0);
    EXPECT_EQ(interruptedPauses, 0);
    EXPECT_THAT(board::log(), IsEmpty());
}

int semaphore() { return semget(kConfigurationKey, 1, IPC_CREAT | 0777); }

// A process loads the table twice and blocks during its turn each time, because the file is a pipe.
TEST_F(Configuration, ASemaphoreThatWasRemovedIsMadeAgain) {
    board::writeFile(kPersistentConfiguration, "");
    std::filesystem::remove(kDefaultConfiguration);
    ASSERT_EQ(mkfifo(kDefaultConfiguration, 0600), 0);
    const pid_t loader = board::fork([] {
        init_configuration();
        init_configuration();
    });
    for (const bool first : {true, false}) {
        std::ofstream pipe;
        ASSERT_TRUE(board::waitFor(10, [] { return semctl(semaphore(), 0, GETVAL) == 1; }));
        pipe.open(kDefaultConfiguration);
        if (first) semctl(semaphore(), 0, IPC_RMID);
    }
    EXPECT_EQ(board::wait(loader), 0);
}

TEST_F(Configuration, WithoutASemaphoreNobodyElseIsBlamed) {
    load("");
    failing = {"semget", 0};
    errno = ENOSPC;
    EXPECT_EQ(add_configuration("K", "v"), 0);
    EXPECT_THAT(board::log(), ElementsAre(AllOf(HasSubstr("No space"), Not(HasSubstr("another process")))));
}

// Signals do not cut the wait short.
TEST_F(Configuration, AnInterruptedWaitForTheTurnGoesOn) {
    load("");
    ASSERT_EQ(semctl(semaphore(), 0, SETVAL, 1), 0);
    const pid_t waiter = board::fork([] {
        signal(SIGUSR1, [](int) {});
        EXPECT_EQ(add_configuration("K", "v"), 0);
    });
    ASSERT_TRUE(board::waitFor(10, [] { return semctl(semaphore(), 0, GETZCNT) == 1; }));
    for (int i = 0; i < 20; ++i) {
        kill(waiter, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    semctl(semaphore(), 0, SETVAL, 0);
    EXPECT_EQ(board::wait(waiter), 0);
    EXPECT_THAT(board::log(), IsEmpty());
}

}  // namespace
