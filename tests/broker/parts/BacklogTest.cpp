#include "broker/Backlog.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

class BacklogTest : public testing::Test
{
protected:
    void fullReadsFor(std::chrono::milliseconds time)
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

TEST_F(BacklogTest, aPeerWhoseBytesFillEachReadMayHaveEndedBeforeTheFirst)
{
    const TimePoint begin = now;
    fullReadsFor(1s);
    EXPECT_EQ(backlog.earliestEnd(now), begin);
}

TEST_F(BacklogTest, theLastBytesOfABacklogStillBelongToIt)
{
    const TimePoint begin = now;
    fullReadsFor(1s);
    backlog.read(false, now);
    EXPECT_EQ(backlog.earliestEnd(now), begin);
}

TEST_F(BacklogTest, isOverAfterAPause)
{
    fullReadsFor(1s);
    now += Backlog::pause + 1ms;
    EXPECT_EQ(backlog.earliestEnd(now), now);
    const TimePoint begin = now;
    fullReadsFor(50ms);
    EXPECT_EQ(backlog.earliestEnd(now), begin);
}
