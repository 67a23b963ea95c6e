// When posts are left unread for the sake of a slower subscriber, with time and lengths as arguments.

#include "broker/IntakePause.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

constexpr std::size_t limit = 1000;
constexpr std::size_t tooMuch = 751;
constexpr std::size_t less = 501; // the pause goes on with this much
constexpr std::size_t little = 500;

class IntakePauseTest : public testing::Test
{
protected:
    bool decide(std::size_t backlog, std::chrono::microseconds later = 0us)
    {
        now += later;
        return pause.decide(backlog, limit, now);
    }

    // How long it pauses if asked each millisecond.
    std::chrono::milliseconds pausesFor(std::size_t backlog)
    {
        std::chrono::milliseconds time{0};
        while (decide(backlog, 1ms))
            time += 1ms;
        return time;
    }

    TimePoint now = TimePoint() + 1h;
    IntakePause pause{now};
};

} // namespace

TEST_F(IntakePauseTest, beginsBeyondThreeQuartersOfTheLimitAndEndsAtHalf)
{
    EXPECT_FALSE(decide(0));
    EXPECT_FALSE(decide(750));
    EXPECT_TRUE(decide(tooMuch));
    EXPECT_TRUE(pause.isPaused());
    EXPECT_TRUE(decide(less));
    EXPECT_FALSE(decide(little));
    EXPECT_FALSE(pause.isPaused());
    EXPECT_FALSE(decide(less));
}

TEST_F(IntakePauseTest, lastsHalfASecondInAll)
{
    ASSERT_TRUE(decide(tooMuch));
    EXPECT_EQ(pausesFor(tooMuch), IntakePause::most - 1ms);
    EXPECT_FALSE(decide(tooMuch)) << "nothing is left";
}

TEST_F(IntakePauseTest, seldomLookedAtItLastsNoLonger)
{
    ASSERT_TRUE(decide(tooMuch));
    EXPECT_FALSE(decide(tooMuch, 10s));
}

TEST_F(IntakePauseTest, aSecondWithoutOneGivesBackAQuarter)
{
    ASSERT_TRUE(decide(tooMuch));
    pausesFor(tooMuch);
    EXPECT_FALSE(decide(little, 1s));
    ASSERT_TRUE(decide(tooMuch));
    EXPECT_EQ(pausesFor(tooMuch), 249ms);
}

TEST_F(IntakePauseTest, neverHasMoreThanItsMost)
{
    EXPECT_FALSE(decide(little, 1h));
    ASSERT_TRUE(decide(tooMuch));
    EXPECT_EQ(pausesFor(tooMuch), IntakePause::most - 1ms);
}

TEST_F(IntakePauseTest, doesNotBeginForAMoment)
{
    ASSERT_TRUE(decide(tooMuch));
    pausesFor(tooMuch);
    EXPECT_FALSE(decide(tooMuch, 400ms)) << "a quarter of that is too little to begin";
    EXPECT_TRUE(decide(tooMuch, 200ms));
}

TEST_F(IntakePauseTest, takesAtMostAFifthOfTheTimeOfABurstWithoutEnd)
{
    std::chrono::milliseconds paused{0};
    for (int count = 0; count < 100000; ++count)
        paused += decide(tooMuch, 1ms) ? 1ms : 0ms;
    EXPECT_LE(paused, IntakePause::most + 100s / 5);
}

TEST_F(IntakePauseTest, isDueSoonSinceTheSubscriberMayTakeNothingAnyMore)
{
    ASSERT_TRUE(decide(tooMuch));
    EXPECT_EQ(pause.due(), now + IntakePause::step);
    ASSERT_TRUE(decide(tooMuch, IntakePause::most - 1ms));
    EXPECT_EQ(pause.due(), now + 1ms) << "when its time is over";
}

TEST_F(IntakePauseTest, isNotDueWhileItIsNotPaused)
{
    EXPECT_EQ(pause.due(), TimePoint::max());
    decide(tooMuch);
    decide(little);
    EXPECT_EQ(pause.due(), TimePoint::max());
}
