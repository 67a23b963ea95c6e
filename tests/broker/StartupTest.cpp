// What holds a client's first SyncAck, and what is told again to a new subscriber: with time as an argument.

#include <gtest/gtest.h>
#include <set>

#include "broker/CatchUp.h"
#include "broker/StartupGate.h"

using namespace std::chrono_literals;

namespace
{

using Connections = std::vector<StartupGate::Connection>;

const TimePoint start = TimePoint() + 1h;

class StartupGateTest : public testing::Test
{
protected:
    std::set<StartupGate::Connection> closed;
    StartupGate gate{[this](const StartupGate::Connection& connection)
                     { return closed.count(connection) == 0; }};
};

} // namespace

TEST_F(StartupGateTest, aFirstSyncIsHeldUntilItsPostConnectionHasSettled)
{
    EXPECT_TRUE(gate.hold("a", start));
    EXPECT_TRUE(gate.release(0, 1, start + 100ms).empty()); // no post connection yet
    gate.postConnected(start + 100ms);
    EXPECT_TRUE(gate.release(1, 1, start + 100ms + StartupGate::settleTime - 1ms).empty());
    EXPECT_EQ(gate.release(1, 1, start + 100ms + StartupGate::settleTime), Connections{"a"});
    EXPECT_TRUE(gate.empty());
}

TEST_F(StartupGateTest, aSyncIsHeldForTheSettleTimeEvenIfThePostConnectionIsOld)
{
    gate.postConnected(start - 1h);
    gate.hold("a", start);
    EXPECT_TRUE(gate.release(1, 1, start + StartupGate::settleTime - 1ms).empty());
    EXPECT_EQ(gate.release(1, 1, start + StartupGate::settleTime), Connections{"a"});
}

TEST_F(StartupGateTest, laterSyncsOfAConnectionAreNotHeld)
{
    gate.hold("a", start);
    gate.release(1, 1, start + 1s);
    EXPECT_FALSE(gate.hold("a", start + 1s));
}

TEST_F(StartupGateTest, eachNewPostConnectionProlongsTheWait)
{
    gate.hold("a", start);
    gate.hold("b", start);
    gate.postConnected(start);
    gate.postConnected(start + 20ms);
    EXPECT_TRUE(gate.release(2, 2, start + 20ms).empty());
    EXPECT_EQ(gate.release(2, 2, start + 20ms + StartupGate::settleTime), (Connections{"a", "b"}));
}

TEST_F(StartupGateTest, aRequestOnlyConnectionWaitsTheBoundAndDelaysOthersOnlyOnce)
{
    gate.hold("request only", start);
    EXPECT_TRUE(gate.release(0, 1, start + StartupGate::longestHold - 1ms).empty());
    EXPECT_EQ(gate.release(0, 1, start + StartupGate::longestHold), Connections{"request only"});
    const TimePoint later = start + 10s;
    gate.hold("client", later);
    gate.postConnected(later);
    EXPECT_EQ(gate.release(1, 2, later + StartupGate::settleTime), Connections{"client"});
}

TEST_F(StartupGateTest, aClosedConnectionIsForgotten)
{
    gate.hold("held", start);
    gate.requestClosed("held");
    EXPECT_TRUE(gate.empty());
    gate.hold("a", start);
    gate.release(1, 1, start + 1s);
    gate.requestClosed("a");
    EXPECT_TRUE(gate.hold("a", start + 2s)); // a new connection by an old name
}

TEST_F(StartupGateTest, aConnectionThatSyncsOverAndOverIsHeldOnce)
{
    gate.hold("client", start);
    for (int count = 0; count < 20000; ++count)
        gate.hold("flood", start);
    gate.hold("later", start);
    EXPECT_EQ(gate.release(3, 3, start + 1s), (Connections{"client", "flood", "later"}));
}

TEST_F(StartupGateTest, aSyncReceivedAfterTheCloseOfItsConnectionDoesNotLetOthersThroughTooSoon)
{
    closed = {"dead"};
    gate.hold("dead", start);
    gate.release(0, 1, start + StartupGate::longestHold);
    const TimePoint later = start + 10s;
    gate.hold("request only", later);
    EXPECT_TRUE(gate.release(0, 1, later + StartupGate::longestHold - 1ms).empty());
}

TEST_F(StartupGateTest, aConnectionWhoseCloseIsNotToldIsNoLongerTakenForOneWithoutPosts)
{
    gate.hold("request only", start);
    gate.release(0, 1, start + StartupGate::longestHold);
    closed = {"request only"};
    const TimePoint later = start + 10s;
    gate.hold("another", later);
    EXPECT_TRUE(gate.release(0, 1, later + StartupGate::longestHold - 1ms).empty());
}

TEST_F(StartupGateTest, aConnectionWhoseCloseIsNotToldIsHeldAgainUnderItsName)
{
    gate.hold("a", start);
    gate.release(1, 1, start + 1s);
    closed = {"a"};
    gate.hold("b", start + 1s);
    gate.release(1, 1, start + 2s);
    closed.clear();
    EXPECT_TRUE(gate.hold("a", start + 3s));
}

TEST_F(StartupGateTest, everybodyIsReleasedAtTheEnd)
{
    gate.hold("a", start);
    gate.hold("b", start);
    EXPECT_EQ(gate.releaseAll(), (Connections{"a", "b"}));
    EXPECT_TRUE(gate.empty());
}

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

TEST(CatchUpTest, aClientThatSeemsServedIsKeptInMindForAWhile)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    EXPECT_EQ(catchUp.subscribed(start), 10U); // perhaps somebody else's
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

TEST(CatchUpTest, aClientThatNeverSubscribesIsForgotten)
{
    CatchUp catchUp;
    catchUp.acknowledged(10, start);
    EXPECT_EQ(catchUp.subscribed(start + CatchUp::longestWait), std::nullopt);
}
