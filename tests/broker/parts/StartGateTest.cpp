// When the first "Sync" of a client is answered: with time and numbers as arguments.

#include "broker/StartGate.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

using Decision = StartGate::Decision;

const TimePoint brokerStart = TimePoint() + 1h;
const TimePoint grownUp = brokerStart + StartGate::youth;

class StartGateTest : public testing::Test
{
protected:
    // Of a client that asks when the broker is not young any more.
    Decision decide(std::chrono::microseconds waited, bool areSubscribed, std::size_t clients,
                    std::size_t posts) const
    {
        return gate.decide(grownUp, areSubscribed, clients, posts, grownUp + waited);
    }

    StartGate gate{brokerStart};
};

} // namespace

TEST_F(StartGateTest, isHeldUntilTheClientsSocketLooksAgain)
{
    EXPECT_EQ(decide(0us, true, 1, 1), Decision::Hold);
    EXPECT_EQ(decide(StartGate::settleTime - 1us, true, 1, 1), Decision::Hold);
    EXPECT_EQ(decide(StartGate::settleTime, true, 1, 1), Decision::Start);
}

TEST_F(StartGateTest, isHeldUntilThePostConnectionsHaveTheirSubscription)
{
    EXPECT_EQ(decide(10s, false, 1, 1), Decision::Hold);
    EXPECT_EQ(decide(10s, true, 1, 1), Decision::Start);
}

TEST_F(StartGateTest, isHeldWhileThereAreFewerPostConnectionsThanClients)
{
    EXPECT_EQ(decide(StartGate::settleTime, true, 2, 1), Decision::Hold);
    EXPECT_EQ(decide(StartGate::settleTime, true, 2, 2), Decision::Start);
    EXPECT_EQ(decide(StartGate::settleTime, true, 2, 3), Decision::Start) << "some only post";
}

TEST_F(StartGateTest, aClientWithoutAPostConnectionIsHeldForItsBound)
{
    EXPECT_EQ(decide(StartGate::patience - 1us, true, 1, 0), Decision::Hold);
    EXPECT_EQ(decide(StartGate::patience, true, 1, 0), Decision::StartWithoutPosts);
}

TEST_F(StartGateTest, isHeldLongerByAYoungBrokerWhoseClientsMayStillComeBack)
{
    const TimePoint asked = grownUp - 1us;
    EXPECT_EQ(gate.decide(asked, true, 1, 0, asked + StartGate::patience), Decision::Hold);
    EXPECT_EQ(gate.decide(asked, true, 1, 0, asked + StartGate::patienceWhenYoung - 1us), Decision::Hold);
    EXPECT_EQ(gate.decide(asked, true, 1, 0, asked + StartGate::patienceWhenYoung),
              Decision::StartWithoutPosts);
    EXPECT_EQ(gate.decide(asked, true, 1, 1, asked + StartGate::settleTime), Decision::Start)
        << "not where they are all there";
}
