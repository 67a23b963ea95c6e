#include <cerrno>
#include <gtest/gtest.h>

#include "tests/statusmanager/TestManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

class LocalTimers : public testing::Test
{
protected:
    std::size_t timers()
    {
        std::size_t count = 0;
        manager.onThread([&] { count = manager.mTimers.size(); });
        return count;
    }

    std::size_t counters()
    {
        std::size_t count = 0;
        manager.onThread([&] { count = manager.mCounters.size(); });
        return count;
    }

    LogCapture log;
    TestManager manager;
};

TEST_F(LocalTimers, aStartedTimerAnswersWhatAFreshOneAnswers)
{
    manager.startTimer("t");
    manager.restartTimer("t");
    manager.stopTimer("t");
    manager.resetTimer("t");
    EXPECT_EQ(manager.getTimerElapsed("t"), 0U);
    EXPECT_EQ(manager.getTimerElapsedSeconds("t"), 0U);
    EXPECT_EQ(manager.getTimerLastStarted("t"), 0U);
    EXPECT_EQ(timers(), 1U);
}

TEST_F(LocalTimers, theStoredTimerDoesNotRunAfterStart)
{
    manager.startTimer("t");
    manager.onThread(
        [&]
        {
            EXPECT_EQ(manager.mTimers.front().getName(), "t");
            EXPECT_EQ(manager.mTimers.front().getLastStartTime(), 0U);
        });
}

TEST_F(LocalTimers, theFirstMentionOfANameStoresItOnce)
{
    manager.getTimerElapsed("t");
    manager.getTimerElapsed("t");
    manager.getTimerLastStarted("u");
    manager.getCounterValue("c");
    manager.incrementCounter("c");
    manager.setCounterValue("d", 1);
    EXPECT_EQ(timers(), 2U);
    EXPECT_EQ(counters(), 2U);
}

TEST_F(LocalTimers, incrementingAnswersZeroForEver)
{
    EXPECT_EQ(manager.incrementCounter("c"), 0U);
    EXPECT_EQ(manager.incrementCounter("c"), 0U);
    EXPECT_EQ(manager.incrementCounter("c"), 0U);
    EXPECT_EQ(manager.getCounterValue("c"), 0U);
}

TEST_F(LocalTimers, settingACounterHasNoEffect)
{
    manager.setCounterValue("c", 7);
    EXPECT_EQ(manager.getCounterValue("c"), 0U);
}

TEST_F(LocalTimers, anEmptyCounterNameIsLoggedAndNotStored)
{
    EXPECT_EQ(manager.getCounterValue(""), 0U);
    EXPECT_EQ(manager.incrementCounter(""), 0U);
    manager.setCounterValue("", 1);
    EXPECT_EQ(counters(), 0U);
    EXPECT_EQ(log.count(2, "Counter name is empty"), 3U);
}

TEST_F(LocalTimers, anEmptyTimerNameIsLoggedAndNotStored)
{
    EXPECT_EQ(manager.getTimerElapsed(""), 0U);
    EXPECT_EQ(manager.getTimerLastStarted(""), 0U);
    manager.startTimer("");
    manager.stopTimer("");
    manager.resetTimer("");
    manager.restartTimer("");
    EXPECT_EQ(timers(), 0U);
    EXPECT_EQ(log.count(2, "Timer name is empty"), 6U);
}

TEST_F(LocalTimers, lookingUpFillsTheCopyAndLeavesItAloneForAnEmptyCounterName)
{
    manager.onThread(
        [&]
        {
            Counter counter("before", 5);
            EXPECT_FALSE(manager.getCounter("", counter));
            EXPECT_EQ(counter, Counter("before", 5));
            EXPECT_TRUE(manager.getCounter("c", counter));
            EXPECT_EQ(counter, Counter("c", 0));
            veskcommon::Stopwatch timer("before");
            manager.getTimer("", timer);
            EXPECT_EQ(timer.getName(), "");
            manager.getTimer("t", timer);
            EXPECT_EQ(timer.getName(), "t");
        });
}

TEST(TimerSeconds, areTheVirtualElapsedTimeDividedAndTruncated)
{
    struct Elapsed : public StatusManager
    {
        uint64_t getTimerElapsed(const std::string&) override { return elapsed; }
        uint64_t elapsed = 0;
    } manager;
    for (const auto& [microseconds, seconds] : {std::pair<uint64_t, uint64_t>{999999, 0},
                                                {2999999, 2},
                                                {3000000, 3},
                                                {5000000000000000, 5000000000}})
    {
        manager.elapsed = microseconds;
        EXPECT_EQ(manager.getTimerElapsedSeconds("t"), seconds);
    }
}

class SystemClock : public LocalTimers
{
protected:
    void SetUp() override { FakeClock::reset(); }
};

TEST_F(SystemClock, isSetToWholeSecondsWhenTheCallReturns)
{
    manager.updateSystemTime(4294967295U);
    ASSERT_TRUE(FakeClock::lastSetting());
    EXPECT_EQ(static_cast<uint64_t>(FakeClock::lastSetting()->time.tv_sec), 4294967295U);
    EXPECT_EQ(FakeClock::lastSetting()->time.tv_usec, 0);
    EXPECT_FALSE(FakeClock::lastSetting()->hadTimeZone);
}

TEST_F(SystemClock, isSetToTheEpochByZeroWithoutALine)
{
    manager.updateSystemTime(0);
    ASSERT_TRUE(FakeClock::lastSetting());
    EXPECT_EQ(FakeClock::lastSetting()->time.tv_sec, 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SystemClock, failureStaysSilent)
{
    FakeClock::failWith(EPERM);
    manager.updateSystemTime(1);
    EXPECT_TRUE(FakeClock::lastSetting());
    EXPECT_TRUE(log.lines().empty());
}
