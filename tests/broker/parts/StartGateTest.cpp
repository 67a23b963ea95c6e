// When the first "Sync" of a client is answered, with time and numbers as arguments.

#include "broker/StartGate.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint brokerStart = TimePoint() + 1h;
const TimePoint grownUp = brokerStart + StartGate::youth;

class StartGateTest : public testing::Test
{
protected:
    // For a client that asks when the broker is no longer young.
    bool opens(std::chrono::microseconds waited, bool areSubscribed, std::size_t clients, std::size_t posts)
    {
        return gate.opens(grownUp, areSubscribed, clients, posts, grownUp + waited);
    }

    // Makes the gate wait in vain for the post connections of this many clients.
    void missInVain(std::size_t missing, TimePoint now)
    {
        EXPECT_FALSE(gate.opens(now, true, missing, 0, now + StartGate::startWait - 1us));
        EXPECT_TRUE(gate.opens(now, true, missing, 0, now + StartGate::startWait));
    }

    StartGate gate{brokerStart};
};

} // namespace

TEST_F(StartGateTest, isHeldUntilTheClientsSocketLooksAgain)
{
    EXPECT_FALSE(opens(0us, true, 1, 1));
    EXPECT_FALSE(opens(StartGate::settleTime - 1us, true, 1, 1));
    EXPECT_TRUE(opens(StartGate::settleTime, true, 1, 1));
}

TEST_F(StartGateTest, isHeldUntilThePostConnectionsHaveTheirSubscription)
{
    EXPECT_FALSE(opens(10s, false, 1, 1));
    EXPECT_TRUE(opens(10s, true, 1, 1));
}

TEST_F(StartGateTest, isHeldWhileThereAreFewerPostConnectionsThanClients)
{
    EXPECT_FALSE(opens(StartGate::settleTime, true, 2, 1));
    EXPECT_TRUE(opens(StartGate::settleTime, true, 2, 2));
    EXPECT_TRUE(opens(StartGate::settleTime, true, 2, 3)) << "some only post";
}

TEST_F(StartGateTest, aClientWithoutAPostConnectionIsHeldForItsBound)
{
    EXPECT_FALSE(opens(StartGate::startWait - 1us, true, 1, 0));
    EXPECT_TRUE(opens(StartGate::startWait, true, 1, 0));
}

TEST_F(StartGateTest, isHeldLongerByAYoungBrokerWhoseClientsMayStillComeBack)
{
    const TimePoint asked = grownUp - 1us;
    EXPECT_FALSE(gate.opens(asked, true, 1, 0, asked + StartGate::startWait));
    EXPECT_FALSE(gate.opens(asked, true, 1, 0, asked + StartGate::youngStartWait - 1us));
    EXPECT_TRUE(gate.opens(asked, true, 1, 0, asked + StartGate::youngStartWait));
    EXPECT_TRUE(gate.opens(asked, true, 1, 1, asked + StartGate::settleTime))
        << "no longer when all are there";
}

TEST_F(StartGateTest, whatWasWaitedForInVainIsNotWaitedForAgain)
{
    missInVain(2, grownUp);
    const TimePoint later = grownUp + 1h;
    EXPECT_TRUE(gate.opens(later, true, 2, 0, later + StartGate::settleTime));
    EXPECT_TRUE(gate.opens(later, true, 7, 5, later + StartGate::settleTime));
    EXPECT_FALSE(gate.opens(later, true, 7, 4, later + StartGate::settleTime)) << "one more is waited for";
}

TEST_F(StartGateTest, othersThatHaveTheirPostConnectionAheadDoNotMakeItForget)
{
    missInVain(1, grownUp);
    const TimePoint later = grownUp + StartGate::memory;
    EXPECT_TRUE(gate.opens(later - 1s, true, 3, 3, later - 1s + StartGate::settleTime));
    EXPECT_TRUE(gate.opens(later - 1s, true, 3, 2, later - 1s + StartGate::settleTime));
}

TEST_F(StartGateTest, whatHasNotBeenMissingForAWhileIsWaitedForAgain)
{
    missInVain(1, grownUp);
    const TimePoint later = grownUp + StartGate::memory + 1s;
    EXPECT_TRUE(gate.opens(later, true, 3, 3, later + StartGate::settleTime));
    EXPECT_FALSE(gate.opens(later, true, 3, 2, later + StartGate::settleTime));
}

TEST_F(StartGateTest, nobodyIsAnsweredBeforeClientsOfAnEarlierBrokerCanBeBack)
{
    const TimePoint asked = brokerStart + 1ms;
    EXPECT_FALSE(gate.opens(asked, true, 1, 1, brokerStart + StartGate::returnPause - 1us));
    EXPECT_TRUE(gate.opens(asked, true, 1, 1, brokerStart + StartGate::returnPause));
}
