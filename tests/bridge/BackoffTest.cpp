#include "mqttlink/Backoff.h"

#include <gtest/gtest.h>

namespace
{

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

// The longest pauses, and the bounds that they were picked from.
Backoff::Random most()
{
    return [](uint64_t bound) { return bound; };
}

} // namespace

TEST(BackoffTest, theBoundDoublesFromASecondToTheLongestPause)
{
    Backoff backoff(most(), minutes(5));
    for (const int bound : {1, 2, 4, 8, 16, 32, 64, 128, 256, 300, 300})
        EXPECT_EQ(backoff.next({}), seconds(bound));
}

TEST(BackoffTest, thePauseIsAnyTimeUpToTheBound)
{
    Backoff backoff([](uint64_t bound) { return bound / 3; }, minutes(5));
    EXPECT_EQ(backoff.next({}), milliseconds(333));
    EXPECT_EQ(backoff.next({}), milliseconds(666));
}

TEST(BackoffTest, aConnectionThatLastedBeginsAnew)
{
    Backoff backoff(most(), minutes(5));
    for (int i = 0; i < 5; ++i)
        backoff.next({});
    EXPECT_EQ(backoff.next(Backoff::lasting), seconds(1));
}

TEST(BackoffTest, aServerThatKicksAfterAcceptingIsNotAskedMoreOften)
{
    Backoff backoff(most(), minutes(5));
    for (const int bound : {1, 2, 4, 8})
        EXPECT_EQ(backoff.next(seconds(59)), seconds(bound));
}

TEST(BackoffTest, aShortLongestPauseBoundsTheFirstOneToo)
{
    Backoff backoff(most(), milliseconds(500));
    EXPECT_EQ(backoff.next({}), milliseconds(500));
    EXPECT_EQ(backoff.next({}), milliseconds(500));
}
