// How long a post connection delays starting clients, with time as an argument.

#include "broker/StartWait.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint begin = TimePoint() + 1h;

// Looks this often, the last time after this time.
bool isGivenUp(StartWait& wait, int looks, std::chrono::microseconds after)
{
    for (int look = 1; look < looks; ++look)
        wait.look(begin);
    return wait.look(begin + after);
}

} // namespace

TEST(StartWaitTest, endsAfterItsTime)
{
    StartWait wait;
    EXPECT_FALSE(isGivenUp(wait, StartWait::fewestLooks, StartWait::longest - 1us));
    EXPECT_TRUE(wait.look(begin + StartWait::longest));
    EXPECT_TRUE(wait.isOver());
}

TEST(StartWaitTest, doesNotEndForABrokerThatHasHardlyLooked)
{
    StartWait wait;
    EXPECT_FALSE(isGivenUp(wait, StartWait::fewestLooks - 1, 10 * StartWait::longest));
    EXPECT_TRUE(wait.look(begin + 10 * StartWait::longest));
}

TEST(StartWaitTest, beginsAnewWhereTheHandshakeIsComplete)
{
    StartWait wait;
    ASSERT_TRUE(isGivenUp(wait, StartWait::fewestLooks, StartWait::longest));
    wait.beginAnew();
    EXPECT_FALSE(wait.isOver());
    EXPECT_FALSE(wait.look(begin + 10 * StartWait::longest));
}
