// Notifications that a new subscriber gets again, with time as an argument.

#include "broker/CatchUp.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint start = TimePoint() + 1h;

} // namespace

TEST(CatchUpTest, withoutAnAcknowledgedClientNothingIsToldAgain)
{
    CatchUp catchUp;
    EXPECT_EQ(catchUp.subscribed(start), std::nullopt);
}

TEST(CatchUpTest, aSubscriptionIsToldWhatChangedSinceTheOldestAcknowledgement)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    catchUp.acknowledged(20, start + 1ms);
    EXPECT_EQ(catchUp.subscribed(start + 2ms), 10U);
    EXPECT_EQ(catchUp.subscribed(start + 3ms), 10U);
}

TEST(CatchUpTest, theLeastRevisionAwaitedIsThatOfTheNextSubscription)
{
    CatchUp catchUp;
    EXPECT_EQ(catchUp.leastAwaited(start), std::nullopt);
    catchUp.acknowledged(20, start);
    EXPECT_EQ(catchUp.leastAwaited(start), 20U);
    catchUp.disconnected(10, start, 5s);
    EXPECT_EQ(catchUp.leastAwaited(start), 10U);
    EXPECT_EQ(catchUp.leastAwaited(start + 5s), 20U);
    EXPECT_EQ(catchUp.leastAwaited(start + 10s), 20U) << "a look subscribes nobody";
    EXPECT_EQ(catchUp.leastAwaited(start + CatchUp::longestWait), std::nullopt);
}

TEST(CatchUpTest, aClientThatSeemsServedIsKeptInMindForAWhile)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    EXPECT_EQ(catchUp.subscribed(start), 10U); // it may be another client's
    EXPECT_EQ(catchUp.subscribed(start + CatchUp::graceTime - 1ms), 10U);
    EXPECT_EQ(catchUp.subscribed(start + CatchUp::graceTime), std::nullopt);
}

TEST(CatchUpTest, aSubscriptionServesOnlyOneOfSeveralClients)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    catchUp.acknowledged(20, start);
    catchUp.subscribed(start);
    EXPECT_EQ(catchUp.subscribed(start + 10s), 10U); // the older one still waits
}

TEST(CatchUpTest, ofClientsAcknowledgedTogetherEachIsAwaited)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    catchUp.acknowledged(20, start + 50ms);
    catchUp.acknowledged(30, start + 90ms);
    catchUp.subscribed(start + 91ms);
    catchUp.subscribed(start + 91ms);
    EXPECT_EQ(catchUp.subscribed(start + 10s), 10U); // the third
    EXPECT_EQ(catchUp.subscribed(start + 10s + CatchUp::graceTime), std::nullopt);
}

TEST(CatchUpTest, oneThatWasAcknowledgedLaterDoesNotPassForAnEarlierOne)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    catchUp.acknowledged(20, start + CatchUp::together);
    catchUp.subscribed(start + CatchUp::together); // for the later subscriber
    EXPECT_EQ(catchUp.subscribed(start + 10s), 10U);
    EXPECT_EQ(catchUp.subscribed(start + 10s + CatchUp::graceTime), std::nullopt);
}

TEST(CatchUpTest, aClientThatNeverSubscribesIsForgotten)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    EXPECT_EQ(catchUp.subscribed(start + CatchUp::longestWait), std::nullopt);
}

TEST(CatchUpTest, thoseThatLostTheirConnectionAreKeptInMindForTheirTimeHoweverManySubscribe)
{
    CatchUp catchUp;
    catchUp.disconnected(5, start, 30s);
    for (int count = 0; count < 100; ++count)
        EXPECT_EQ(catchUp.subscribed(start + count * 200ms), 5U);
    EXPECT_EQ(catchUp.subscribed(start + 30s - 1ms), 5U);
    EXPECT_EQ(catchUp.subscribed(start + 30s), std::nullopt);
}

TEST(CatchUpTest, theOldestRevisionOfAllIsTold)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    catchUp.disconnected(5, start, 1s);
    catchUp.acknowledged(20, start);
    EXPECT_EQ(catchUp.subscribed(start), 5U);
    EXPECT_EQ(catchUp.subscribed(start + 1s), 10U);
}
