#include "firmware/upload.h"

#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "tests/firmware/image_bytes.h"
#include "tests/native_board.h"

using namespace std::string_literals;
using image_bytes::header;
using image_bytes::section;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

namespace fs = std::filesystem;

constexpr char kFile[] = "/tmp/fabtestd.file";

class SaveFile : public board::NativeBoardTest {
protected:
    // Receives `size` bytes from a station that sends `sent` and then closes; returns what is left in the socket.
    static std::string receive(int32_t size, const std::string &sent) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        const pid_t station = board::fork([&] {
            close(ends[0]);
            EXPECT_EQ(send(ends[1], sent.data(), sent.size(), MSG_NOSIGNAL), static_cast<ssize_t>(sent.size()));
        });
        close(ends[1]);
        saveFile(ends[0], size, kFile);
        std::string left(4096, '\0');
        left.resize(static_cast<size_t>(std::max<ssize_t>(recv(ends[0], left.data(), left.size(), MSG_WAITALL), 0)));
        close(ends[0]);
        board::wait(station);
        return left;
    }
};

TEST_F(SaveFile, TakesExactlyTheAnnouncedBytes) {
    std::string payload;
    for (int i = 0; i < 9000; ++i) payload += static_cast<char>(i * 7 % 251);
    for (const int size : {1, 1499, 1500, 1501, 3001, 9000}) {
        const auto length = static_cast<size_t>(size);
        EXPECT_EQ(receive(size, payload.substr(0, length) + "PING"), "PING") << size;
        EXPECT_EQ(board::readFile(kFile), payload.substr(0, length)) << size;
    }
    for (const size_t arrived : {0, 1, 1499, 1500, 1501, 2000}) {
        EXPECT_EQ(receive(4000, payload.substr(0, arrived)), "") << arrived;
        EXPECT_EQ(board::readFile(kFile), payload.substr(0, arrived)) << arrived;
    }
}

TEST_F(SaveFile, EmptiesTheFileForNothingAtAll) {
    for (const int size : {0, -1, INT32_MIN}) {
        board::writeFile(kFile, "old");
        EXPECT_EQ(receive(size, "PING"), "PING") << size;
        EXPECT_TRUE(board::exists(kFile));
        EXPECT_EQ(board::readFile(kFile), "") << size;
    }
    EXPECT_THAT(board::logTexts()[0], MatchesRegex("\\[saveFile,[0-9]+\\] filename=/tmp/fabtestd.file, size=0"));
    EXPECT_EQ(board::logTexts()[1], "> /tmp/fabtestd.file");
}

TEST_F(SaveFile, ADiskThatIsFullStillTakesThePayloadFromTheStream) {
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=64k"), 0);
    EXPECT_EQ(receive(200000, std::string(200000, 'x') + "PING"), "PING");
    EXPECT_LE(board::readFile(kFile).size(), 65536U);
    umount("/tmp");
}

class Write2Tmp : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        for (const auto &[number, name] :
             {std::pair(2, "kernel\n"), {3, "rootfs"}, {4, "firmware and more\n"}, {5, ""}}) {
            board::writeFile("/sys/class/block/mtdblock" + std::to_string(number) + "/device/name", name);
        }
        board::writeFile("/sys/class/block/mtdblock9/device/name", std::string(100, 'n'));
    }

    // Splits an image of these sections and returns the staged files by name.
    static std::map<std::string, std::string> split(const std::string &sections, std::optional<uint32_t> size = {}) {
        for (const auto &entry : fs::directory_iterator("/tmp")) fs::remove_all(entry.path());
        const std::string image = image_bytes::productBlock() + sections;
        board::writeFile("/tmp/image", image);
        EXPECT_EQ(write2tmp("/tmp/image", size.value_or(static_cast<uint32_t>(image.size()))), 0);
        std::map<std::string, std::string> staged;
        for (const auto &entry : fs::directory_iterator("/tmp")) {
            const std::string name = entry.path().filename();
            if (name != "image") staged[name] = board::readFile(entry.path());
        }
        return staged;
    }
};

using Staged = std::map<std::string, std::string>;

TEST_F(Write2Tmp, StagesSectionsByTheirPartitionsName) {
    const std::string data(1000, 'd');
    const std::string longName(31, 'n');
    const struct {
        const char *what;
        std::string sections;
        Staged staged;
    } cases[] = {
        {"two sections",
         section("2.bin", data) + section("3.bin", "root"),
         {{"kernel.img", data}, {"rootfs.img", "root"}}},
        {"the first word of the name", section("4.x", "f"), {{"firmware.img", "f"}}},
        {"an empty section", section("2.bin", ""), {{"kernel.img", ""}}},
        {"the same twice", section("2.a", "one") + section("2.b", "two"), {{"kernel.img", "two"}}},
        {"no such device", section("7.bin", "x") + section("8.bin", "y"), {{".img", "y"}}},
        {"no such device behind one", section("2.bin", "x") + section("8.bin", "y"), {{"kernel.img", "y"}}},
        {"a device without a name", section("3.bin", "x") + section("5.bin", "y"), {{"rootfs.img", "y"}}},
        {"a long partition name", section("9.bin", "x"), {{longName + ".img", "x"}}},
        {"a name without a dot ends the walk", section("2bin", "x") + section("3.bin", "y"), {}},
        {"a negative number ends the walk", section("-2.bin", "x") + section("3.bin", "y"), {}},
        {"no number is 0", section(".bin", "x"), {{".img", "x"}}},
        {"blanks before and between", header("  4 \t 2.bin") + "data", {{"kernel.img", "data"}}},
        {"no blank", header("4x2.bin") + "data", {{".img", "data"}}},
        {"a path in the name", section("2./../../etc/x", "data"), {{"kernel.img", "data"}}},
        {"64 characters without a NUL", "4 2." + std::string(60, 's') + "data", {{"kernel.img", "data"}}},
        {"64 digits", std::string(64, '9') + section("2.bin", "x"), {{"kernel.img", "x"}}},
        {"cut off in its data", section("2.bin", data).substr(0, 500), {}},
        {"cut off behind another",
         section("3.bin", data) + section("2.bin", data).substr(0, 500),
         {{"rootfs.img", data}, {"kernel.img", data.substr(0, 436)}}},
        {"cut off in its header", section("2.bin", "x") + header("1 3.bin").substr(0, 63), {{"kernel.img", "x"}}},
        {"nothing", "", {}},
    };
    for (const auto &test : cases) EXPECT_EQ(split(test.sections), test.staged) << test.what;
}

// What remains is counted at 32 bits and wraps; which sections fit depends on it. `size` is what is told to the walk.
TEST_F(Write2Tmp, CountsWhatRemainsAt32Bits) {
    const std::string unreadable = header("no number");
    const struct {
        const char *what;
        std::string sections;
        uint32_t size;
        Staged staged;
    } cases[] = {
        {"fits exactly", section("2.bin", "1234"), 68, {{"kernel.img", "1234"}}},
        {"one byte too long", section("2.bin", "1234"), 67, {}},
        {"below a header everything fits", section("2.bin", "1234"), 63, {{"kernel.img", "1234"}}},
        {"a copied section takes its header alone",
         section("2.bin", "1234") + section("3.bin", "5678"),
         132,
         {{"kernel.img", "1234"}, {"rootfs.img", "5678"}}},
        {"too long: its length is taken, its data read as headers",
         header("100 2.bin") + section("3.bin", "5678"),
         130,
         {{"rootfs.img", "5678"}}},
        {"too long by more than remains: that wraps, and all that follows fits",
         header("200 2.bin") + header("1000 3.bin") + "5678",
         100,
         {{"rootfs.img", "5678"}}},
        {"the largest length adds one to what remains",
         header("4294967295 2.bin") + section("3.bin", "5678"),
         67,
         {{"rootfs.img", "5678"}}},
        {"a length above 32 bits is the largest",
         header("99999999999 2.bin") + section("3.bin", "5678"),
         4000,
         {{"rootfs.img", "5678"}}},
        {"a negative length is a large one",
         header("-1 2.bin") + section("3.bin", "5678"),
         4000,
         {{"rootfs.img", "5678"}}},
        {"an unreadable header takes the last length",
         section("2.bin", "1234") + unreadable + section("3.bin", "56"),
         134,
         {{"kernel.img", "1234"}, {"rootfs.img", "56"}}},
        {"until nothing fits",
         section("2.bin", "1234") + unreadable + section("3.bin", "567"),
         134,
         {{"kernel.img", "1234"}}},
        {"a header with a length alone keeps the last length",
         section("2.bin", "1234") + header("9999999") + section("3.bin", "56"),
         134,
         {{"kernel.img", "1234"}, {"rootfs.img", "56"}}},
        {"a copy cut short takes what is missing", header("50 2.bin") + "1234", 200, {{"kernel.img", "1234"}}},
    };
    for (const auto &test : cases) EXPECT_EQ(split(test.sections, test.size), test.staged) << test.what;
}

TEST_F(Write2Tmp, FilesTooShortForAnImageAreHarmless) {
    for (const size_t length : {0, 32, 33, 59, 60, 92, 123}) {
        board::writeFile("/tmp/image", std::string(length, '1'));
        EXPECT_EQ(write2tmp("/tmp/image", static_cast<uint32_t>(length)), 0);
    }
    EXPECT_EQ(write2tmp("/tmp/none", 1000), 0);
}

// Ten thousand mutations of a good image: nothing is read or written out of bounds, no file appears outside /tmp, and
// what was staged is the same on every processor: the number is that of a little-endian 64-bit run.
TEST_F(Write2Tmp, MutationsStageTheSameEverywhere) {
    const std::string good = section("2.bin", std::string(700, 'k')) + section("3.rootfs", std::string(300, 'r')) +
                             section("4.bin", "firmware");
    std::mt19937 random(3);
    uint64_t digest = 14695981039346656037U;
    for (int round = 0; round < 10000; ++round) {
        std::string mutated = good;
        for (unsigned change = random() % 4 + 1; change > 0; --change) {
            const size_t headers[] = {0, 764, 1128};
            const size_t position =
                random() % 2 == 0 ? random() % mutated.size() : headers[random() % 3] + random() % 12;
            if (position >= mutated.size()) continue;
            switch (random() % 3) {
            case 0:
                mutated[position] = static_cast<char>(random());
                break;
            case 1:
                mutated[position] = "0123456789.- \0"[random() % 14];
                break;
            default:
                mutated.resize(position);
                break;
            }
            if (mutated.empty()) break;
        }
        for (const auto &[name, content] : split(mutated)) {
            for (const char c : name + content) digest = (digest ^ static_cast<unsigned char>(c)) * 1099511628211U;
        }
    }
    EXPECT_EQ(digest, 8373821865635224672U);
    EXPECT_THAT(board::readFile("/etc/x"), IsEmpty());
    std::set<std::string> roots;
    for (const auto &entry : fs::directory_iterator("/")) {
        if (entry.is_regular_file()) roots.insert(entry.path());
    }
    EXPECT_THAT(roots, IsEmpty());
}

}  // namespace
