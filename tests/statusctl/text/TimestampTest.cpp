#include "statusctl/text/Timestamp.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <optional>

#include "tests/support/MachineClock.h"

using std::chrono::microseconds;
using Timestamp::Time;

namespace
{

std::optional<timespec> fakeTime;

} // namespace

// The program's definition takes precedence over the C library's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clock != CLOCK_REALTIME || !fakeTime)
        return machineClock(clock, time);
    *time = *fakeTime;
    return 0;
}

TEST(TimestampTest, nowIsToldAfter2038AsWell)
{
    fakeTime = timespec();
    fakeTime->tv_sec = 4102444800;
    fakeTime->tv_nsec = 123456789;
    const Time now = Timestamp::now();
    fakeTime.reset();
    EXPECT_EQ(now, Time(microseconds(4102444800123456)));
}

TEST(TimestampTest, utcIsWrittenWithMicroseconds)
{
    EXPECT_EQ(Timestamp::utc(Time(microseconds(0))), "1970-01-01T00:00:00.000000Z");
    EXPECT_EQ(Timestamp::utc(Time(microseconds(1780000000123456))), "2026-05-28T20:26:40.123456Z");
}

TEST(TimestampTest, whatUtcWritesIsReadBack)
{
    for (const int64_t count : {int64_t{0}, int64_t{1}, int64_t{1780000000999999}, int64_t{4102444800000000}})
        EXPECT_EQ(Timestamp::read(Timestamp::utc(Time(microseconds(count)))), Time(microseconds(count)));
}

TEST(TimestampTest, anythingElseIsRefused)
{
    for (const char* text : {"", "yesterday", "2026-05-28T20:26:40Z", "2026-05-28T20:26:40.123456",
                             "2026-05-28T20:26:40.123456Zx", "2026-05-28T20:26:40.12345Z",
                             "2026-05-28T20:26:40.-12345Z", "2026-13-28T20:26:40.123456Z"})
        EXPECT_EQ(Timestamp::read(text), std::nullopt) << text;
}

TEST(TimestampTest, localTimeNamesItsZone)
{
    setenv("TZ", "XYZ-05:30", 1);
    tzset();
    EXPECT_EQ(Timestamp::local(Time(microseconds(1780000000123456))), "2026-05-29T01:56:40.123+05:30");
    unsetenv("TZ");
    tzset();
}
