// When the state file is written without any change, with time as an argument.

#include "broker/CommitTimes.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint now = TimePoint() + 1h;
constexpr bool running = true;
constexpr bool behind = true;

} // namespace

TEST(CommitTimesTest, nothingIsDueWhereAllIsWrittenAndNoTimerRuns)
{
    EXPECT_EQ(CommitTimes().due(!running, !behind), TimePoint::max());
}

TEST(CommitTimesTest, timeIsKeptOnceAMinuteWhileTimersRun)
{
    CommitTimes times;
    EXPECT_LE(times.due(running, !behind), now) << "at once";
    times.triedAsDue(now);
    EXPECT_EQ(times.due(running, !behind), now + CommitTimes::momentPause);
    times.tried(now + 1s);
    EXPECT_EQ(times.due(running, !behind), now + CommitTimes::momentPause);
}

TEST(CommitTimesTest, whatCouldNotBeWrittenIsTriedAgainASecondAfterTheLastAttempt)
{
    CommitTimes times;
    times.triedAsDue(now);
    times.tried(now + 10s);
    EXPECT_EQ(times.due(running, behind), now + 10s + CommitTimes::rewritePause)
        << "not only when the time is to be saved";
    EXPECT_EQ(times.due(!running, behind), now + 10s + CommitTimes::rewritePause);
    times.triedAsDue(now + 11s);
    EXPECT_EQ(times.due(running, behind), now + 11s + CommitTimes::rewritePause);
}
