// Commands that carry a payload, over the wire, on the fake flash.

#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "tests/firmware/image_bytes.h"
#include "tests/service.h"

using station::Milliseconds;
using station::Session;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr Milliseconds kSoon{20000};
constexpr char kReceived[] = "/tmp/fabtestd.file";
constexpr size_t kPartition = 1 << 20;

std::string pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 131 + i / 259);
    return bytes;
}

std::string flashed(const std::string &data) { return data + std::string(kPartition - data.size(), '\xFF'); }

class Payload : public board::ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        for (const int number : {2, 3, 5}) makePartition(number, std::string(kPartition, '\x55'));
    }

    static std::string ask(Session &session, const std::string &command, const std::string &payload) {
        session.sendCommand(command);
        session.sendBytes(payload);
        return session.receiveReply(kSoon);
    }
};

TEST_F(Payload, PartitionsAreFlashed) {
    Session session = startSession();
    const struct {
        const char *command;
        int number;
        size_t length;
    } cases[] = {{"FW KERNEL ", 2, kPartition},
                 {"FW ROOTFS ", 3, kPartition / 2 + 1},
                 {"FW CONFIG ", 5, 0},
                 {"FW KERNEL ", 2, 1}};
    for (const auto &test : cases) {
        const std::string data = pattern(test.length);
        EXPECT_EQ(ask(session, test.command + std::to_string(test.length), data), "OK");
        EXPECT_TRUE(partition(test.number) == flashed(data)) << test.command;
        EXPECT_EQ(board::readFile(kReceived), data);
    }
    session.sendBytes("PING");
    EXPECT_EQ(session.receiveReply(kSoon), "PING 2") << "the stream is in step";
}

TEST_F(Payload, SizesThatAreNoNumberAreZero) {
    Session session = startSession();
    for (const char *command :
         {"FW CONFIG ", "FW CONFIG x", "FW CONFIG -5", "VERSION ", "VERSION 0", "VERSION -2147483648"}) {
        EXPECT_EQ(ask(session, command, ""), "OK") << command;
        EXPECT_TRUE(board::exists(kReceived));
        EXPECT_EQ(board::readFile(kReceived), "") << command;
    }
    EXPECT_EQ(ask(session, "SHELL", ""), "SHELL");
    EXPECT_EQ(ask(session, "FW CONFIG 3 4", "abc"), "OK") << "what follows the number is ignored";
    EXPECT_EQ(board::readFile(kReceived), "abc");
}

TEST_F(Payload, ScriptsAreRunAndTheCommandIsEchoed) {
    Session session = startSession();
    const std::string script = "#!/bin/sh\necho printed\necho mark > /tmp/mark\n";
    const std::string size = std::to_string(script.size());
    for (const std::string &command : {"SHELL " + size, "SHELL:" + size, "SHELL " + size + " and more"}) {
        unlink("/tmp/mark");
        EXPECT_EQ(ask(session, command, script), command);
        EXPECT_EQ(board::readFile("/tmp/mark"), "mark\n") << command;
    }
    EXPECT_EQ(ask(session, "SHELL7", ""), "SHELL7") << "one character is skipped: an empty script";
    const std::string whole = "SHELL 0" + std::string(57, 'x');
    EXPECT_EQ(ask(session, whole, ""), whole) << "64 characters come back without a NUL";
    EXPECT_THAT(board::logTexts(), Contains("chmod 755 /tmp/fabtestd.file; /tmp/fabtestd.file"));
}

TEST_F(Payload, ImagesAreAcceptedOrRefused) {
    board::writeFile("/sys/class/block/mtdblock2/device/name", "kernel");
    const board::NamedProcess telnetd("telnetd");
    Session session = startSession();
    std::string image = image_bytes::productBlock() + image_bytes::section("2.bin", "kernel");
    board::writeFile("/tmp/digested", image);
    ASSERT_EQ(system("/usr/bin/md5sum /tmp/digested | cut -c 1-32 > /tmp/digest"), 0);
    image += board::readFile("/tmp/digest");
    EXPECT_EQ(ask(session, "FW IMAGE " + std::to_string(image.size()), image), "OK");
    EXPECT_EQ(board::readFile("/tmp/kernel.img"), "kernel");
    image[100] = 'x';
    EXPECT_EQ(ask(session, "FW IMAGE " + std::to_string(image.size()), image), "ERROR");
    EXPECT_EQ(ask(session, "FW IMAGE 0", ""), "ERROR");
}

// The station closes or resets the connection when so many bytes of the payload have been sent: the file holds exactly
// those, the command is carried out with them, and then the service ends.
TEST_F(Payload, AStationThatGoesInTheMiddleEndsTheService) {
    const std::string data = pattern(4000);
    for (const size_t arrived : {0, 1, 1499, 1500, 1501, 2000}) {
        SetUp();
        {
            Session session = startSession();
            session.sendCommand("FW KERNEL 4000");
            session.sendBytes(data.substr(0, arrived));
        }
        ASSERT_TRUE(hasEnded()) << arrived;
        EXPECT_EQ(board::readFile(kReceived), data.substr(0, arrived));
        EXPECT_TRUE(partition(2) == flashed(data.substr(0, arrived))) << arrived;
        EXPECT_THAT(board::logTexts().back(), HasSubstr("closeSocket"));
    }
}

// The modes of the console, on the device nodes that an earlier run has copied.
TEST_F(Payload, TheConsoleFlashesTheSame) {
    run({"test"});
    board::writeFile("/tmp/data", pattern(1000));
    unlink("/tmp/reboot");
    board::writeFile("/tmp/reboot", "#!/bin/sh\necho rebooted >> /tmp/rebooted\n");
    std::filesystem::permissions("/tmp/reboot", std::filesystem::perms::owner_all);
    const struct {
        const char *mode;
        int number;
        bool reboots;
    } cases[] = {{"kernel", 2, false}, {"rootfs", 3, true}, {"config", 5, false}};
    for (const auto &test : cases) {
        unlink("/tmp/rebooted");
        const board::Outcome outcome = run({test.mode, "/tmp/data"});
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.status, 0);
        EXPECT_TRUE(partition(test.number) == flashed(pattern(1000))) << test.mode;
        EXPECT_EQ(board::exists("/tmp/rebooted"), test.reboots) << test.mode;
    }
    const board::NamedProcess telnetd("telnetd");
    unlink("/tmp/rebooted");
    run({"image", "/tmp/data"});
    EXPECT_TRUE(board::exists("/tmp/rebooted")) << "whatever becomes of the image";
    EXPECT_EQ(board::readFile("/tmp/data").size(), 1000U - 33);
}

TEST_F(Payload, DomcheckLogsTheSystemsIdentity) {
    board::writeFile("/etc/system.info", image_bytes::productBlock());
    EXPECT_EQ(run({"domcheck", "x"}).output, "");
    EXPECT_THAT(board::logTexts(), Not(Contains(HasSubstr("Vendor"))));
    EXPECT_EQ(run({"domcheck"}).output, "");
    EXPECT_THAT(board::logTexts(), Contains("Vendor: ACME\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003"));
}

}  // namespace
