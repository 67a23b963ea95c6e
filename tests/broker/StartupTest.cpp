// What holds a client's first SyncAck, and what is told again to a new subscriber: with time as an argument.

#include <gtest/gtest.h>

#include "broker/CatchUp.h"
#include "broker/StartupGate.h"

using namespace std::chrono_literals;

namespace
{

using Connections = std::vector<StartupGate::Connection>;

const TimePoint start = TimePoint() + 1h;

} // namespace

TEST(StartupGateTest, aFirstSyncIsHeldUntilItsPostConnectionHasSettled)
{
    StartupGate gate;
    EXPECT_TRUE(gate.hold("a", start));
    EXPECT_TRUE(gate.release(0, 1, start + 100ms).empty()); // no post connection yet
    gate.postConnected(start + 100ms);
    EXPECT_TRUE(gate.release(1, 1, start + 100ms + StartupGate::settleTime - 1ms).empty());
    EXPECT_EQ(gate.release(1, 1, start + 100ms + StartupGate::settleTime), Connections{"a"});
    EXPECT_TRUE(gate.empty());
}

TEST(StartupGateTest, aSyncIsHeldForTheSettleTimeEvenIfThePostConnectionIsOld)
{
    StartupGate gate;
    gate.postConnected(start - 1h);
    gate.hold("a", start);
    EXPECT_TRUE(gate.release(1, 1, start + StartupGate::settleTime - 1ms).empty());
    EXPECT_EQ(gate.release(1, 1, start + StartupGate::settleTime), Connections{"a"});
}

TEST(StartupGateTest, laterSyncsOfAConnectionAreNotHeld)
{
    StartupGate gate;
    gate.hold("a", start);
    gate.release(1, 1, start + 1s);
    EXPECT_FALSE(gate.hold("a", start + 1s));
}

TEST(StartupGateTest, eachNewPostConnectionProlongsTheWait)
{
    StartupGate gate;
    gate.hold("a", start);
    gate.hold("b", start);
    gate.postConnected(start);
    gate.postConnected(start + 20ms);
    EXPECT_TRUE(gate.release(2, 2, start + 20ms).empty());
    EXPECT_EQ(gate.release(2, 2, start + 20ms + StartupGate::settleTime), (Connections{"a", "b"}));
}

TEST(StartupGateTest, aRequestOnlyConnectionWaitsTheBoundAndDelaysOthersOnlyOnce)
{
    StartupGate gate;
    gate.hold("request only", start);
    EXPECT_TRUE(gate.release(0, 1, start + StartupGate::longestHold - 1ms).empty());
    EXPECT_EQ(gate.release(0, 1, start + StartupGate::longestHold), Connections{"request only"});
    const TimePoint later = start + 10s;
    gate.hold("client", later);
    gate.postConnected(later);
    EXPECT_EQ(gate.release(1, 2, later + StartupGate::settleTime), Connections{"client"});
}

TEST(StartupGateTest, aClosedConnectionIsForgotten)
{
    StartupGate gate;
    gate.hold("held", start);
    gate.requestClosed("held");
    EXPECT_TRUE(gate.empty());
    gate.hold("a", start);
    gate.release(1, 1, start + 1s);
    gate.requestClosed("a");
    EXPECT_TRUE(gate.hold("a", start + 2s)); // a new connection by an old name
}

TEST(StartupGateTest, everybodyIsReleasedAtTheEnd)
{
    StartupGate gate;
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
