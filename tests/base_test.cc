// Tests of what the rooms of the station share.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "station/base/text.h"
#include "station/base/time.h"
#include "tests/folder.h"

namespace station {
namespace {

TEST(Base, TimesAreThoseOfTheCalendar) {
    for (const char *good : {"2026-11-21", "2024-02-29T23", "2026-11-21T17:30", "2026-11-21T17:30:59", "2261-12-31"}) {
        const auto time = parseIsoTime(good);
        ASSERT_TRUE(time) << good;
        EXPECT_THAT(isoTime(*time), testing::StartsWith(good));
    }
    for (const char *bad : {"", "today", "2026-02-30", "2025-02-29T23", "2026-13-01", "2026-11-21T24:00", "2026-11-21T",
                            "2026-11-21 17:30", "2026-11-21T17:30:60", "1969-12-31", "9999-12-31", "-026-11-21"}) {
        EXPECT_FALSE(parseIsoTime(bad)) << bad;
    }
}

// On a machine of central Europe.
TEST(Base, ATimeThatAPersonWritesIsTheMachines) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    const std::pair<const char *, const char *> cases[] = {{"2026-07-01T12:00", "2026-07-01T10:00:00.000Z"},
                                                           {"2026-12-01", "2026-11-30T23:00:00.000Z"},
                                                           {"2026-07-01T12:00Z", "2026-07-01T12:00:00.000Z"},
                                                           {"2026-07-01T12:00:00.5", ""},
                                                           {"2026-07-01T12:00:01.500", "2026-07-01T10:00:01.500Z"},
                                                           {"99999999d", "1970-01-01T00:00:"},
                                                           {"8 h", ""},
                                                           {"yesterday", ""},
                                                           {"", ""}};
    for (const auto &[asked, stored] : cases) {
        const auto time = parseTime(asked);
        EXPECT_THAT(time ? isoTime(*time) : "", testing::StartsWith(stored)) << asked;
        EXPECT_EQ(time.has_value(), *stored != '\0') << asked;
    }
    const auto now = WallClock::now();
    EXPECT_LT(now - std::chrono::hours(8) - parseTime("8h").value(), std::chrono::minutes(1));
    const std::time_t midnight = WallClock::to_time_t(parseTime("today").value());
    EXPECT_EQ(std::localtime(&midnight)->tm_hour, 0);
    EXPECT_LT(now - parseTime("today").value(), std::chrono::hours(25));
    unsetenv("TZ");
    tzset();
}

TEST(Base, TextsAreCutBetweenCharacters) {
    EXPECT_EQ(shorten("äöü", 6), "äöü");
    EXPECT_EQ(shorten("äöü", 5), "äö...");
    EXPECT_EQ(shorten("äöü", 4), "äö...");
    EXPECT_EQ(shorten(std::string(9, '\x80'), 8).size(), 8U) << "bytes that are no text";
}

// The mode is what the umask leaves of 0666, as that of any other program's file; and to make the file leaves the
// umask, which other threads' files need, alone.
TEST(Base, ANewFileHasTheModeOfTheUmask) {
    const mode_t before = umask(027);
    const Folder folder;
    const std::filesystem::path path = folder.path / "file";
    NewFile file(path);
    file.write("content");
    file.keep();
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_EQ(readFile(path, 7), "content");
    EXPECT_THROW(readFile(path, 6), std::runtime_error) << "too long";
    EXPECT_EQ(umask(before), 027U);
}

}  // namespace
}  // namespace station
