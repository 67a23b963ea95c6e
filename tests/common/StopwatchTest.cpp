#include "common/Stopwatch.h"

#include <cstdint>
#include <ctime>
#include <deque>
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

// Waits until this much time has passed on the clock that stopwatches read.
void waitFor(uint64_t microseconds)
{
    const uint64_t end = monotonicMicroseconds() + microseconds;
    ASSERT_TRUE(eventually([&] { return monotonicMicroseconds() >= end; }));
}

// Waits until the stopwatch shows at least this much.
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
    const uint64_t beforeStart = monotonicMicroseconds();
    stopwatch.start();
    const uint64_t afterStart = monotonicMicroseconds();
    waitFor(2000);
    const uint64_t beforeStop = monotonicMicroseconds();
    stopwatch.stop();
    const uint64_t afterStop = monotonicMicroseconds();
    EXPECT_GE(stopwatch.getElapsedTime(), beforeStop - afterStart);
    EXPECT_LE(stopwatch.getElapsedTime(), afterStop - beforeStart);
    EXPECT_EQ(stopwatch.getElapsedTime() / 1000000, (afterStop - beforeStart) / 1000000);
}

TEST(StopwatchTest, theLastStartIsInMicrosecondsOfTheMonotonicClock)
{
    Stopwatch stopwatch("t");
    const uint64_t before = monotonicMicroseconds();
    stopwatch.start();
    EXPECT_GE(stopwatch.getLastStartTime(), before);
    EXPECT_LE(stopwatch.getLastStartTime(), monotonicMicroseconds());
    const uint64_t started = stopwatch.getLastStartTime();
    stopwatch.stop();
    EXPECT_EQ(stopwatch.getLastStartTime(), started);
}

TEST(StopwatchTest, aStoppedOneKeepsItsTime)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    waitFor(1000);
    stopwatch.stop();
    const uint64_t elapsed = stopwatch.getElapsedTime();
    waitFor(1000);
    EXPECT_EQ(stopwatch.getElapsedTime(), elapsed);
}

TEST(StopwatchTest, startedAgainItAddsToItsTimeWithoutThePauseBetween)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    waitFor(1000);
    stopwatch.stop();
    const uint64_t first = stopwatch.getElapsedTime();
    waitFor(20000);
    stopwatch.start();
    const uint64_t elapsed = stopwatch.getElapsedTime();
    EXPECT_GE(elapsed, first);
    EXPECT_LE(elapsed, first + monotonicMicroseconds() - stopwatch.getLastStartTime());
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

TEST(StopwatchTest, resetLeavesASpanUnderWayAloneAndClearsWhatWasBeforeIt)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    waitFor(5000);
    stopwatch.stop();
    stopwatch.start();
    const uint64_t started = stopwatch.getLastStartTime();
    waitFor(1000);
    stopwatch.reset();
    EXPECT_EQ(stopwatch.getLastStartTime(), started);
    const uint64_t elapsed = stopwatch.getElapsedTime();
    EXPECT_GE(elapsed, 1000U);
    EXPECT_LE(elapsed, monotonicMicroseconds() - started);
}

TEST(StopwatchTest, restartBeginsAnewFromZero)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    waitFor(5000);
    stopwatch.stop();
    stopwatch.restart();
    const uint64_t elapsed = stopwatch.getElapsedTime();
    EXPECT_LE(elapsed, monotonicMicroseconds() - stopwatch.getLastStartTime());
    runTo(stopwatch, 1000); // still running
}

TEST(StopwatchTest, restartingARunningOneMovesItsStart)
{
    Stopwatch stopwatch("t");
    stopwatch.start();
    const uint64_t started = stopwatch.getLastStartTime();
    waitFor(5000);
    stopwatch.restart();
    EXPECT_GE(stopwatch.getLastStartTime(), started + 5000);
    const uint64_t elapsed = stopwatch.getElapsedTime();
    EXPECT_LE(elapsed, monotonicMicroseconds() - stopwatch.getLastStartTime());
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

TEST(StopwatchTest, aCopyInAQueueIsIndependentOfItsOriginal)
{
    std::deque<Stopwatch> queue;
    Stopwatch original("queued");
    original.start();
    queue.push_back(original);
    EXPECT_EQ(queue.front().getName(), "queued");
    EXPECT_EQ(queue.front().getLastStartTime(), original.getLastStartTime());
    queue.front().stop();
    const uint64_t stoppedAt = queue.front().getElapsedTime();
    runTo(original, stoppedAt + 1000); // still running
    EXPECT_EQ(queue.front().getElapsedTime(), stoppedAt);
}

TEST(StopwatchTest, assignmentReplacesEverything)
{
    Stopwatch running("running");
    running.start();
    waitFor(1000);
    const Stopwatch fresh("fresh");
    running = fresh;
    EXPECT_EQ(running.getName(), "fresh");
    EXPECT_EQ(running.getElapsedTime(), 0U);
    EXPECT_EQ(running.getLastStartTime(), 0U);
}
