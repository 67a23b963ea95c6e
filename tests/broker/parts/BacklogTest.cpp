#include "broker/Backlog.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

class BacklogTest : public testing::Test
{
protected:
    // Reads that leave something, one every 10 ms.
    void readFor(std::chrono::milliseconds time)
    {
        for (const TimePoint end = now + time; now < end; now += 10ms)
            backlog.read(true, now);
    }

    Backlog backlog;
    TimePoint now = Clock::now();
};

} // namespace

TEST_F(BacklogTest, aPeerWithoutUnreadBytesHasEndedNow)
{
    EXPECT_EQ(backlog.earliestEnd(now), now);
    backlog.read(false, now);
    EXPECT_EQ(backlog.earliestEnd(now + 1ms), now + 1ms);
}

TEST_F(BacklogTest, aPeerMayHaveEndedWhenItsBacklogBegan)
{
    const TimePoint begin = now;
    readFor(1s);
    EXPECT_EQ(backlog.earliestEnd(now), begin);
}

TEST_F(BacklogTest, goesOnHoweverLateTheBrokerReadsOn)
{
    const TimePoint begin = now;
    readFor(100ms);
    now += 1s;
    backlog.read(true, now);
    EXPECT_EQ(backlog.earliestEnd(now), begin);
}

TEST_F(BacklogTest, theEndOfAPeerShowsAMomentAfterItsLastBytes)
{
    const TimePoint begin = now;
    readFor(1s);
    backlog.read(false, now);
    backlog.read(false, now + 1ms);
    EXPECT_EQ(backlog.earliestEnd(now + Backlog::allowance), begin);
}

TEST_F(BacklogTest, isOverWhenItIsReadOut)
{
    readFor(1s);
    backlog.read(false, now);
    now += Backlog::allowance + 1ms;
    EXPECT_EQ(backlog.earliestEnd(now), now);
}

TEST_F(BacklogTest, burstsThatAreReadOutEachTimeAreNotOne)
{
    for (int burst = 0; burst < 10; ++burst)
    {
        readFor(20ms);
        backlog.read(false, now);
        now += 50ms;
    }
    EXPECT_EQ(backlog.earliestEnd(now), now);
    const TimePoint begin = now;
    readFor(20ms);
    EXPECT_EQ(backlog.earliestEnd(now), begin);
}

TEST_F(BacklogTest, ofAPeerThatPostsWithoutAPauseCountsForALimitedTime)
{
    readFor(1min);
    EXPECT_EQ(backlog.earliestEnd(now), now - Backlog::longest);
}
