// The times of people, in the zone of the station: when a shift began, what an engineer asks for.

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "station/page/shift.h"

namespace station {
namespace {

class LocalTime : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        ::tzset();
    }
};

TEST_F(LocalTime, AShiftBeginsAtItsHourOfTheLocalDay) {
    const std::tuple<std::vector<int>, const char *, const char *> cases[] = {
        {{360, 840, 1320}, "2026-11-21T05:59:59Z", "2026-11-21 06:00"},
        {{360, 840, 1320}, "2026-11-21T04:59:59Z", "2026-11-20 22:00"},
        {{360, 840, 1320}, "2026-11-21T13:00:00Z", "2026-11-21 14:00"},
        {{360, 840, 1320}, "2025-12-31T23:30:00Z", "2025-12-31 22:00"},
        {{360, 840, 1320}, "2026-03-29T03:00:00Z", "2026-03-28 22:00"},  // summer time skips an hour
        {{360, 840, 1320}, "2026-10-25T04:59:00Z", "2026-10-24 22:00"},  // winter time repeats an hour
        {{360, 840, 1320}, "2026-10-25T05:00:00Z", "2026-10-25 06:00"},
        {{0}, "2026-07-01T22:00:00Z", "2026-07-02 00:00"},
        {{720}, "2026-07-01T09:59:00Z", "2026-06-30 12:00"}};
    for (const auto &[starts, now, begin] : cases) {
        const auto began = shiftBegin(starts, WallClock::from_time_t(timeOf(now)));
        EXPECT_EQ(localTime(WallClock::to_time_t(began), "%Y-%m-%d %H:%M"), begin) << now;
    }
}

TEST_F(LocalTime, AShiftsCountersSurviveAClockThatJumps) {
    using namespace std::chrono_literals;
    auto uptime = sinceBoot();
    Shift shift({360, 840, 1320});
    const auto renews = [&](const char *now, std::chrono::nanoseconds passed) {
        return shift.renew(WallClock::from_time_t(timeOf(now)), uptime += passed);
    };
    renews("2026-11-21T09:00:00Z", 1s);
    shift.add("A-1", "plan", true, 9);
    EXPECT_FALSE(renews("2026-11-22T09:00:01Z", 1s)) << "a day forward";
    EXPECT_FALSE(renews("2001-01-01T00:00:00Z", 1s)) << "years back";
    EXPECT_FALSE(renews("2026-11-21T12:59:59Z", 2s)) << "right again";
    EXPECT_EQ(shift.toJson()["units"], 1);
    EXPECT_TRUE(renews("2026-11-21T13:00:01Z", 2s)) << "the next shift";
    EXPECT_EQ(shift.toJson()["units"], 0);
    EXPECT_TRUE(renews("2026-11-22T13:00:01Z", 24h)) << "a day that nobody looked";
}

}  // namespace
}  // namespace station
