// How long the broker waits for the clients of an earlier broker.

#include "broker/ReturnTime.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

TEST(ReturnTimeTest, isOverAfterItsLength)
{
    const TimePoint serving = TimePoint() + 1h;
    const ReturnTime time(serving);
    EXPECT_TRUE(time.isOn(serving + ReturnTime::length - 1us));
    EXPECT_FALSE(time.isOn(serving + ReturnTime::length));
}
