#include "common/Stopwatch.h"

#include <ctime>
#include <gtest/gtest.h>

#include "tests/support/Wait.h"

using veskcommon::Stopwatch;

namespace
{

uint64_t monotonicMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// Lets the stopwatch run until it shows at least so much.
void runTo(Stopwatch& stopwatch, uint64_t microseconds)
{
    ASSERT_TRUE(eventually([&] { return stopwatch.getElapsedTime() >= microseconds; }));
}

} // namespace

TEST(StopwatchTest, aFreshOneIsStoppedAtZero)
{
    Stopwatch stopwatch("fresh");
    EXPECT_EQ(stopwatch.getElapsedTime(), 0U);
    EXPECT_EQ(stopwatch.getLastStartTime(), 0U);
    EXPECT_EQ(stopwatch.getName(), "fresh");
}

TEST(StopwatchTest, theNameMayBeEmpty)
{
    EXPECT_EQ(Stopwatch("").getName(), "");
}

TEST(StopwatchTest, countsMicrosecondsOfTheMonotonicClock)
{
    Stopwatch stopwatch("t");
    const uint64_t before = monotonicMicroseconds();
    stopwatch.start();
    EXPECT_GE(stopwatch.getLastStartTime(), before);
    EXPECT_LE(stopwatch.getLastStartTime(), monotonicMicroseconds());
    runTo(stopwatch, 2000);
    stopwatch.stop();
    EXPECT_LE(stopwatch.getElapsedTime(), monotonicMicroseconds() - before);
}

TEST(StopwatchTest, aStoppedOneKeepsItsTimeAndAddsToItWhenStartedAgain)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    runTo(stopwatch, 1000);
    stopwatch.stop();
    const uint64_t first = stopwatch.getElapsedTime();
    EXPECT_EQ(stopwatch.getElapsedTime(), first);
    stopwatch.start();
    runTo(stopwatch, first + 1000);
}

TEST(StopwatchTest, startingARunningOneChangesNothing)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    const uint64_t started = stopwatch.getLastStartTime();
    runTo(stopwatch, 1000);
    stopwatch.start();
    EXPECT_EQ(stopwatch.getLastStartTime(), started);
    EXPECT_GE(stopwatch.getElapsedTime(), 1000U);
}

TEST(StopwatchTest, stoppingAStoppedOneChangesNothing)
{
    Stopwatch stopwatch("t");
    stopwatch.stop();
    EXPECT_EQ(stopwatch.getElapsedTime(), 0U);
    stopwatch.start();
    runTo(stopwatch, 1000);
    stopwatch.stop();
    const uint64_t elapsed = stopwatch.getElapsedTime();
    stopwatch.stop();
    EXPECT_EQ(stopwatch.getElapsedTime(), elapsed);
}

TEST(StopwatchTest, resetClearsTheAccumulatedTime)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    runTo(stopwatch, 1000);
    stopwatch.stop();
    stopwatch.reset();
    EXPECT_EQ(stopwatch.getElapsedTime(), 0U);
}

TEST(StopwatchTest, resetLeavesASpanUnderWayAlone)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    runTo(stopwatch, 1000);
    stopwatch.reset();
    EXPECT_GE(stopwatch.getElapsedTime(), 1000U);
}

TEST(StopwatchTest, restartBeginsAnew)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    runTo(stopwatch, 5000);
    const uint64_t started = stopwatch.getLastStartTime();
    stopwatch.restart();
    EXPECT_GT(stopwatch.getLastStartTime(), started);
    runTo(stopwatch, 1000); // and it runs
}

TEST(StopwatchTest, copiesAreIndependent)
{
    Stopwatch original("t");
    Stopwatch copy(original);
    copy.start();
    runTo(copy, 1000);
    EXPECT_EQ(original.getElapsedTime(), 0U);
    EXPECT_EQ(original.getLastStartTime(), 0U);
    Stopwatch assigned("other");
    assigned = copy;
    EXPECT_EQ(assigned.getName(), "t");
    EXPECT_EQ(assigned.getLastStartTime(), copy.getLastStartTime());
    EXPECT_GE(assigned.getElapsedTime(), 1000U);
}
