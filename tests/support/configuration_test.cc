#include "support/configuration.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "tests/native_board.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

using namespace std::string_literals;

namespace {

const std::string kHeader = "#& 3\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\n";
constexpr size_t kHeaderRecords = 2;

std::string valueOf(const char *key) {
    const char *const value = RETURN_DEF_STR(key);
    return value != nullptr ? value : "(none)";
}

class Configuration : public board::NativeBoardTest {
protected:
    // Makes `text`, behind a header, the content of both files and loads it.
    static void load(const std::string &text) {
        board::writeFile(kDefaultConfiguration, kHeader);
        board::writeFile(kPersistentConfiguration, kHeader + text);
        ASSERT_NE(init_configuration(), nullptr);
    }

    static size_t count() { return static_cast<size_t>(get_configuration()->count); }
};

TEST_F(Configuration, LinesAreReadByTheirSyntax) {
    load("# KEY1 = no\n"
         "  KEY2 = \"no\"\n"
         "\tKEY2 = no\n"
         "\n"
         "KEY3 = \"a b\"\n"
         "KEY4 = \"a\\\"b\\\\\"\n"
         "KEY5 : plain more words\n"
         "KEY6 =\n"
         "KEY7 = \"open\n"
         "KEY7 = v \"open\n"
         "KEY8 = a b c d e f g h i j k l\n"
         "KEY9\t=\tv\r\n"
         "KEY10 = \n" +
         std::string(40, 'K') + " = " + std::string(70, 'v') + "\n" + "LAST = \"end\"");
    const std::map<const char *, const char *> expected = {
        {"KEY1", "(none)"}, {"KEY2", "(none)"}, {"KEY3", "a b"}, {"KEY4", "a\"b\\"}, {"KEY5", "plain"},
        {"KEY6", "(none)"}, {"KEY7", "(none)"}, {"KEY8", "a"},   {"KEY9", "v"},      {"KEY10", ""},
        {"LAST", "end"},    {"key3", "(none)"}, {"#", "(none)"}};
    for (const auto &[key, value] : expected) EXPECT_EQ(valueOf(key), value) << key;
    EXPECT_EQ(valueOf(std::string(31, 'K').c_str()), std::string(63, 'v'));
    EXPECT_EQ(valueOf(std::string(40, 'K').c_str()), "(none)");
}

TEST_F(Configuration, ValuesAreTextNumberOrFlag) {
    load("a = Y\nb = yes\nc = y1\nd = 1\ne = true\nf = 0x10\ng = 12abc\nh = -5\ni = 4294967295\nj = 4294967296\n");
    for (const char *key : {"a", "b", "c"}) EXPECT_EQ(IF_DEFINE(key), 1) << key;
    for (const char *key : {"d", "e", "none"}) EXPECT_EQ(IF_DEFINE(key), 0) << key;
    EXPECT_EQ(if_exist("d"), 1);
    EXPECT_EQ(if_exist("none"), 0);
    const std::map<const char *, int> numbers = {{"f", 0}, {"g", 12}, {"h", -5}, {"none", 0}};
    for (const auto &[key, value] : numbers) EXPECT_EQ(RETURN_DEF_INT(key), value) << key;
    EXPECT_EQ(RETURN_DEF_UINT("g"), 12U);
    EXPECT_EQ(RETURN_DEF_UINT("i"), 4294967295U);
    EXPECT_EQ(RETURN_DEF_UINT("j"), 4294967295U);
    EXPECT_EQ(RETURN_DEF_UINT("none"), 0U);
}

// Of equal keys the file's order is kept in the table, and the probe order decides: among the table's n records the
// middle one, n/2, is looked at first.
TEST_F(Configuration, TheProbeOrderDecidesBetweenEqualKeys) {
    load("K = 1\nK = 2\nK = 3\n");
    EXPECT_EQ(count(), 5U);
    EXPECT_EQ(valueOf("K"), "3") << "K K K SYSTEM_BRAND SYSTEM_MODEL: the third is probed first";
    load("K = 1\nK = 2\nK = 3\nA = 0\nB = 0\nC = 0\n");
    EXPECT_EQ(valueOf("K"), "2") << "A B C K K K and two more: the fifth";
    load("Z = 1\nZ = 2\n");
    EXPECT_EQ(valueOf("Z"), "1") << "SYSTEM_BRAND SYSTEM_MODEL Z Z: the third";
}

TEST_F(Configuration, ANewerOrOtherDefaultReplacesTheFile) {
    const auto file = [](const char *version, const char *brand, const char *model, const char *mark) {
        return std::string(version) + "\nSYSTEM_BRAND = " + brand + "\nSYSTEM_MODEL = " + model + "\nMARK = " + mark +
               "\n";
    };
    const struct {
        const char *what;
        std::string shipped, persistent;
        const char *mark, *identity;
        uint32_t version;
    } cases[] = {
        {"same version", file("#& 3", "B", "M", "d"), file("#& 3", "B", "M", "p"), "p", "B_M", 3},
        {"newer default", file("#& 4", "B", "M", "d"), file("#& 3", "B", "M", "p"), "d", "B_M", 4},
        {"older default", file("#& 2", "B", "M", "d"), file("#& 3", "B", "M", "p"), "p", "B_M", 3},
        {"other model", file("#& 1", "B", "N", "d"), file("#& 3", "B", "M", "p"), "d", "B_N", 1},
        {"unsigned version", file("#& 4294967295", "B", "M", "d"), file("#& 3", "B", "M", "p"), "d", "B_M",
         4294967295U},
        {"version on line 10", file("#& 1", "B", "M", "d"), "#\n#\n#\n#\n#\n#\n#" + file("\n#", "B", "M", "p"), "d",
         "B_M", 1},
        {"no persistent file", file("#& 1", "B", "M", "d"), "", "d", "B_M", 1},
    };
    for (const auto &test : cases) {
        SetUp();
        board::writeFile(kDefaultConfiguration, test.shipped);
        if (!test.persistent.empty()) board::writeFile(kPersistentConfiguration, test.persistent);
        const ConfigurationSegment *const segment = init_configuration();
        EXPECT_EQ(valueOf("MARK"), test.mark) << test.what;
        EXPECT_STREQ(segment->identity, test.identity) << test.what;
        EXPECT_EQ(segment->version, test.version) << test.what;
    }
    SetUp();
    board::writeFile(kDefaultConfiguration, "#& 1\n" + std::string("#\n") + "SYSTEM_BRAND = B\nSYSTEM_MODEL = M\n");
    board::writeFile(kPersistentConfiguration,
                     "#\n#\n#\n#\n#\n#\n#\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\n#& 9\nMARK = p\n");
    EXPECT_EQ(init_configuration()->version, 9U) << "the tenth line still counts";
    board::writeFile(kPersistentConfiguration, "#\n#\n#\n#\n#\n#\n#\n#\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\n#& 9\n");
    EXPECT_EQ(init_configuration()->version, 1U) << "the eleventh does not";
}

TEST_F(Configuration, OtherProgramsFindTheSegment) {
    load("K = v\n");
    const int id = shmget(0x20120422, 12868, 0);
    shmid_ds status = {};
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, 12868U);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0777);
    const char *const bytes = static_cast<const char *>(shmat(id, nullptr, SHM_RDONLY));
    EXPECT_STREQ(bytes + sizeof(pthread_mutex_t) + 44 + 4, "K") << "the first record's key";
    EXPECT_STREQ(bytes + sizeof(pthread_mutex_t) + 44 + 36, "v");
    shmdt(bytes);
}

TEST_F(Configuration, WithoutFilesTheTableIsEmpty) {
    load("K = v\n");
    std::filesystem::remove_all("/etc/sysconfig");
    std::filesystem::remove(kDefaultConfiguration);
    ASSERT_NE(init_configuration(), nullptr);
    EXPECT_EQ(count(), 0U);
    EXPECT_EQ(valueOf("K"), "(none)");
    EXPECT_EQ(set_configuration("K", "v"), -1);
    EXPECT_EQ(del_configuration("K"), -1);
    EXPECT_EQ(save_configuration("K", "v"), -1);
}

// Whatever the files hold, nothing outside the table is written: the rest of the segment's last page stays as it was.
TEST_F(Configuration, FilesOfAnySizeAndContentStayInsideTheTable) {
    const auto records = [](size_t number) {
        std::string text;
        for (size_t i = 0; i < number; ++i) text += "R" + std::to_string(i) + " = " + std::to_string(i) + "\n";
        return text;
    };
    const struct {
        const char *what;
        std::string text;
        size_t added;
        bool overflow;
    } cases[] = {
        {"one record", records(1), 1, false},
        {"a full table", records(kConfigurationCapacity - kHeaderRecords), kConfigurationCapacity - kHeaderRecords,
         false},
        {"one too many", records(kConfigurationCapacity - kHeaderRecords + 1), kConfigurationCapacity - kHeaderRecords,
         true},
        {"100,000 records", records(100000), kConfigurationCapacity - kHeaderRecords, true},
        {"a long line", "L = " + std::string(10000, 'x') + "\nA = 1\n", 2, false},
        {"long lines of words",
         std::string(10000, 'x') + "\n" +
             [] {
                 std::string s;
                 while (s.size() < 9000) s += "a b ";
                 return s;
             }() +
             "\n",
         2, false},
        {"NUL bytes", "A = 1\0B = 2\nC\0 = 3\n\0\0\0\nD = 4\n"s, 2, false},
        {"unclosed quotes", "A = \"x\nB \"= y\n\"C = z\nD = \"\\\"\nE = 1\n", 1, false},
        {"a long key in quotes", "\"" + std::string(3000, 'k') + "\" = \"" + std::string(5000, 'v') + "\"\nA = 1\n", 1,
         false},
    };
    auto *const bytes = reinterpret_cast<unsigned char *>(get_configuration());
    const size_t page = 16384;  // 12868 bytes take four pages of 4096
    for (const auto &test : cases) {
        SetUp();
        memset(bytes + kConfigurationSize, 0xA5, page - kConfigurationSize);
        load(test.text);
        EXPECT_EQ(count(), test.added + kHeaderRecords) << test.what;
        EXPECT_THAT(board::logTexts(), SizeIs(test.overflow ? 1 : 0)) << test.what;
        const ConfigurationRecord *const table = get_configuration()->table;
        for (size_t i = 0; i < count(); ++i) {
            EXPECT_EQ(table[i].index, i) << test.what;
            EXPECT_EQ(table[i].key[31], '\0') << test.what;
            EXPECT_EQ(table[i].value[63], '\0') << test.what;
            EXPECT_LE(strcmp(table[i > 0 ? i - 1 : 0].key, table[i].key), 0) << test.what;
        }
        EXPECT_TRUE(std::all_of(bytes + kConfigurationSize, bytes + page, [](int b) { return b == 0xA5; }))
            << test.what;
    }
}

TEST_F(Configuration, SettersChangeTheTableOnly) {
    load("B = 1\nD = 1\n");
    EXPECT_EQ(add_configuration("C", "new"), 0);
    EXPECT_EQ(add_configuration("B", std::string(70, 'v').c_str()), 0);
    EXPECT_EQ(add_configuration("D", nullptr), 0);
    EXPECT_EQ(set_configuration("C", "newer"), 0);
    EXPECT_EQ(set_configuration("E", "1"), -1);
    EXPECT_EQ(valueOf("B"), std::string(63, 'v'));
    EXPECT_EQ(valueOf("C"), "newer");
    EXPECT_EQ(valueOf("D"), "1");
    EXPECT_EQ(valueOf("E"), "(none)");
    EXPECT_EQ(del_configuration("B"), 0);
    EXPECT_EQ(valueOf("B"), "(none)");
    EXPECT_EQ(valueOf("C"), "newer");
    EXPECT_EQ(count(), 2 + kHeaderRecords);
    EXPECT_EQ(board::readFile(kPersistentConfiguration), kHeader + "B = 1\nD = 1\n");
}

// The stored index says where the gap is, and what moved up keeps its own: a second deletion behind the first takes
// the neighbour until the table is built again.
TEST_F(Configuration, DeletionGoesByTheStoredIndex) {
    load("A = 1\nB = 2\nC = 3\nD = 4\n");
    EXPECT_EQ(del_configuration("A"), 0);
    EXPECT_EQ(del_configuration("C"), 0);
    EXPECT_EQ(valueOf("C"), "3");
    EXPECT_EQ(valueOf("D"), "(none)");
    for (int i = 0; i < 200; ++i) del_configuration("SYSTEM_MODEL");
    EXPECT_EQ(valueOf("SYSTEM_MODEL"), "(none)");
    EXPECT_LE(count(), 4U);
}

TEST_F(Configuration, AFullTableTakesNoNewKey) {
    std::string text;
    for (size_t i = kHeaderRecords; i < kConfigurationCapacity; ++i) text += "R" + std::to_string(i) + " = 1\n";
    load(text);
    EXPECT_EQ(add_configuration("NEW", "1"), -1);
    EXPECT_EQ(add_configuration("R5", "2"), 0);
    EXPECT_EQ(valueOf("R5"), "2");
    EXPECT_EQ(valueOf("NEW"), "(none)");
    EXPECT_EQ(count(), kConfigurationCapacity);
    EXPECT_THAT(board::logTexts(), ElementsAre(HasSubstr("NEW")));
}

TEST_F(Configuration, SavingRewritesEveryMatchingLine) {
    const std::string longLine = "LONG = " + std::string(10000, 'x') + "\n";
    load("K = 1\nKK = 2\nK = 3\nK=4\n# K = 5\n" + longLine + "N\0 = 6\n"s + "E = 7");
    EXPECT_EQ(save_configuration("K", "a b"), 0);
    EXPECT_EQ(board::readFile(kPersistentConfiguration),
              kHeader + "K = \"a b\"\nKK = 2\nK = \"a b\"\nK=4\n# K = 5\n" + longLine + "N\0 = 6\n"s + "E = 7");
    EXPECT_EQ(valueOf("K"), "a b");
    EXPECT_EQ(save_configuration("LONG", "short"), 0);
    EXPECT_THAT(board::readFile(kPersistentConfiguration), HasSubstr("\nLONG = \"short\"\nN"));
    EXPECT_FALSE(board::exists(std::string(kPersistentConfiguration) + ".new"));
}

TEST_F(Configuration, SavingANewKeyAppendsIt) {
    load("K = 1\n");
    EXPECT_EQ(save_configuration("NEW", "v"), 0);
    EXPECT_THAT(board::readFile(kPersistentConfiguration),
                testing::MatchesRegex("#& 3\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\nK = 1\n"
                                      "\n#New append - [A-Z][a-z]+ [A-Z][a-z]+ [ 0-9]+:[0-9]+:[0-9]+ [0-9]+\n"
                                      "NEW = \"v\"\n"));
    EXPECT_EQ(valueOf("NEW"), "v");
    EXPECT_EQ(valueOf("K"), "1");
}

TEST_F(Configuration, SavingOnAFullDiskLeavesTheOldFile) {
    ASSERT_EQ(mount("tmpfs", "/etc/sysconfig/.firewall", "tmpfs", 0, "size=16k"), 0);
    const std::string text = "K = 1\n" + std::string(9000, '#') + "\n";
    load(text);
    EXPECT_EQ(save_configuration("K", "2"), -1);
    EXPECT_EQ(board::readFile(kPersistentConfiguration), kHeader + text);
    EXPECT_FALSE(board::exists(std::string(kPersistentConfiguration) + ".new"));
    EXPECT_EQ(valueOf("K"), "1");
    umount("/etc/sysconfig/.firewall");
}

TEST_F(Configuration, OpeningLoadsOnlyWhatNothingHasLoaded) {
    board::writeFile(kDefaultConfiguration, kHeader + "K = 1\n");
    open_configuration();
    EXPECT_EQ(valueOf("K"), "1");
    add_configuration("MAC", "recorded");
    open_configuration();
    EXPECT_EQ(valueOf("MAC"), "recorded");
    init_configuration();
    EXPECT_EQ(valueOf("MAC"), "(none)");
}

// What other programs may leave in the shared segment must not lead a lookup or a writer out of it.
TEST_F(Configuration, AnImpossibleCountStaysInsideTheTable) {
    load("A = 1\nB = 2\n");
    for (const int32_t count : {-1, 1000000, INT32_MIN, INT32_MAX}) {
        get_configuration()->count = count;
        RETURN_DEF_STR("ZZZ");
        set_configuration("ZZZ", "1");
        del_configuration("ZZZ");
        add_configuration("ZZZ", "1");
        add_configuration("", "1");
    }
    load("A = 1\nB = 2\n");
    get_configuration()->table[0].index = UINT32_MAX;
    EXPECT_EQ(del_configuration("A"), 0);
}

constexpr int kKeysOfAWriter = 50;

void updateMany(char name, int updates) {
    for (int i = 1; i <= updates; ++i) {
        const std::string key = name + std::to_string(i % kKeysOfAWriter);
        ASSERT_EQ(add_configuration(key.c_str(), std::to_string(i).c_str()), 0);
    }
}

// A reader takes no lock and may meet a table that is being rebuilt, so what the writers wrote is read at the end.
TEST_F(Configuration, TwoWritersLoseNothing) {
    load("");
    constexpr int kUpdates = 10000;
    std::vector<pid_t> writers;
    for (const char name : {'A', 'B'}) writers.push_back(board::fork([name] { updateMany(name, kUpdates); }));
    for (const pid_t writer : writers) EXPECT_EQ(board::wait(writer), 0);
    EXPECT_EQ(count(), 2 * kKeysOfAWriter + kHeaderRecords);
    for (const char name : {'A', 'B'}) {
        for (int i = kUpdates - kKeysOfAWriter + 1; i <= kUpdates; ++i) {
            const std::string key = name + std::to_string(i % kKeysOfAWriter);
            EXPECT_EQ(valueOf(key.c_str()), std::to_string(i)) << key;
        }
    }
    EXPECT_THAT(board::logTexts(), IsEmpty());
}

TEST_F(Configuration, AWriterKilledAtAnyMomentDoesNotStopTheOthers) {
    load("");
    for (int round = 0; round < 10; ++round) {
        const pid_t writer = board::fork([] { updateMany('A', 1000000000); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + 3 * round));
        kill(writer, SIGKILL);
        ASSERT_EQ(board::wait(writer), -SIGKILL);
        ASSERT_EQ(add_configuration("AFTER", std::to_string(round).c_str()), 0);
        ASSERT_EQ(valueOf("AFTER"), std::to_string(round));
    }
}

// The lock of a holder that died, or of another program of the board: taken over once, by one of those who wait.
TEST_F(Configuration, ALockThatIsNeverGivenBackIsReplaced) {
    load("");
    ASSERT_EQ(pthread_mutex_trylock(&get_configuration()->lock), 0);
    std::vector<pid_t> writers;
    for (const char name : {'A', 'B', 'C'}) writers.push_back(board::fork([name] { updateMany(name, 30); }));
    for (const pid_t writer : writers) EXPECT_EQ(board::wait(writer), 0);
    EXPECT_EQ(count(), 90 + kHeaderRecords);
    EXPECT_THAT(board::logTexts(), ElementsAre(HasSubstr("lock")));
}

}  // namespace
