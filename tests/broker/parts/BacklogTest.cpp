#include "broker/Backlog.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

class BacklogTest : public testing::Test
{
protected:
    // Reads that leave something, one every 10 ms, each shown by a look of its own.
    void readFor(std::chrono::milliseconds time)
    {
        for (const TimePoint end = now + time; now < end; now += 10ms)
            backlog.read(true, now, ++look);
    }

    void readOut() { backlog.read(false, now, ++look); }

    // Looks that show nothing.
    void pass(std::chrono::milliseconds time, uint64_t looks = Backlog::looksAllowed + 1)
    {
        now += time;
        look += looks;
    }

    // Of a peer whose end is shown by the next look.
    TimePoint earliestEnd() const { return backlog.earliestEnd(now, look + 1); }

    Backlog backlog;
    TimePoint now = Clock::now();
    uint64_t look = 0;
};

} // namespace

TEST_F(BacklogTest, aPeerWithoutUnreadBytesHasEndedNow)
{
    EXPECT_EQ(earliestEnd(), now);
    readOut();
    now += 1ms;
    EXPECT_EQ(earliestEnd(), now);
}

TEST_F(BacklogTest, aPeerMayHaveEndedWhenItsBacklogBegan)
{
    const TimePoint begin = now;
    readFor(1s);
    EXPECT_EQ(earliestEnd(), begin);
}

TEST_F(BacklogTest, goesOnHoweverLateTheBrokerReadsOn)
{
    const TimePoint begin = now;
    readFor(100ms);
    pass(1s);
    backlog.read(true, now, ++look);
    EXPECT_EQ(earliestEnd(), begin);
}

TEST_F(BacklogTest, theEndOfAPeerShowsAMomentAfterItsLastBytes)
{
    const TimePoint begin = now;
    readFor(1s);
    readOut();
    readOut();
    pass(Backlog::allowance, 100);
    EXPECT_EQ(earliestEnd(), begin);
}

TEST_F(BacklogTest, goesOnHoweverLateTheBrokerLooksForMore)
{
    const TimePoint begin = now;
    readFor(100ms);
    readOut();
    pass(1s, Backlog::looksAllowed);
    EXPECT_EQ(earliestEnd(), begin);
}

TEST_F(BacklogTest, isOverWhenItIsReadOut)
{
    readFor(1s);
    readOut();
    pass(Backlog::allowance + 1ms);
    EXPECT_EQ(earliestEnd(), now);
}

TEST_F(BacklogTest, burstsThatAreReadOutEachTimeAreNotOne)
{
    for (int burst = 0; burst < 10; ++burst)
    {
        readFor(20ms);
        readOut();
        pass(50ms);
    }
    EXPECT_EQ(earliestEnd(), now);
    const TimePoint begin = now;
    readFor(20ms);
    EXPECT_EQ(earliestEnd(), begin);
}

TEST_F(BacklogTest, ofAPeerThatPostsWithoutAPauseCountsForALimitedTime)
{
    readFor(1min);
    EXPECT_EQ(earliestEnd(), now - Backlog::longest);
}
