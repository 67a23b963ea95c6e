// Whether a "Sync" may confirm the posts before it: with time and numbers as arguments.

#include "broker/LostPosts.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint serving = TimePoint() + 1h;

} // namespace

TEST(LostPostsTest, clientsComeBackForAWhile)
{
    const LostPosts lost(serving);
    EXPECT_TRUE(lost.areReturning(serving + LostPosts::returnTime - 1us));
    EXPECT_FALSE(lost.areReturning(serving + LostPosts::returnTime));
}

TEST(LostPostsTest, lossesAreCounted)
{
    LostPosts lost(serving);
    EXPECT_EQ(lost.count(), 0U);
    lost.lost();
    EXPECT_EQ(lost.count(), 1U);
}
