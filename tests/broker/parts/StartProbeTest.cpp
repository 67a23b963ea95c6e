// Whether a starting client has had its turns, with time as an argument.

#include "broker/StartProbe.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint asked = TimePoint() + 1h;

void answer(StartProbe& probe, int times)
{
    for (int time = 0; time < times; ++time)
    {
        ASSERT_TRUE(probe.isDue());
        probe.sent();
        probe.answered();
    }
}

} // namespace

TEST(StartProbeTest, isOverWithTheLastAnswer)
{
    StartProbe probe;
    answer(probe, StartProbe::enough - 1);
    EXPECT_FALSE(probe.isOver(asked, asked));
    answer(probe, 1);
    EXPECT_TRUE(probe.isOver(asked, asked));
    EXPECT_FALSE(probe.isDue());
}

TEST(StartProbeTest, asksOnlyOnceAtATime)
{
    StartProbe probe;
    probe.sent();
    EXPECT_FALSE(probe.isDue());
    EXPECT_TRUE(probe.isUnderWay());
}

TEST(StartProbeTest, waitsForAClientThatTakesItsTime)
{
    StartProbe probe;
    probe.sent();
    EXPECT_FALSE(probe.isOver(asked, asked + StartProbe::longest - 1us));
    EXPECT_TRUE(probe.isOver(asked, asked + StartProbe::longest));
}

TEST(StartProbeTest, isOverForOneThatDoesNotAnswerPings)
{
    StartProbe probe;
    probe.sent();
    probe.giveUp();
    EXPECT_TRUE(probe.isOver(asked, asked));
    EXPECT_FALSE(probe.isUnderWay());
    EXPECT_FALSE(probe.isDue());
}
