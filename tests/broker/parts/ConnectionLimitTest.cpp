#include "broker/ConnectionLimit.h"

#include <gtest/gtest.h>

#include "tests/support/LogCapture.h"

namespace
{

class ConnectionLimitTest : public testing::Test
{
protected:
    std::size_t warnings() const { return log.count(2, "90 of 100 connections to the post port are in use"); }

    const LogCapture log;
    Refusals refusals;
    TimePoint now{std::chrono::hours(1)};
    std::size_t most = 100;
    ConnectionLimit limit{"post", most, refusals};
};

} // namespace

TEST_F(ConnectionLimitTest, warnsAtNineTenths)
{
    limit.added(89, now);
    EXPECT_TRUE(log.lines().empty());
    limit.added(90, now);
    EXPECT_EQ(warnings(), 1U);
}

TEST_F(ConnectionLimitTest, warnsAgainOnlyAfterTheyWereBelowEightTenths)
{
    limit.added(90, now);
    for (const std::size_t inUse : {91U, 100U, 89U, 80U, 90U})
        limit.added(inUse, now);
    EXPECT_EQ(log.lines().size(), 1U);
    limit.added(79, now);
    now += Refusals::window;
    limit.added(90, now);
    EXPECT_EQ(warnings(), 2U);
}

TEST_F(ConnectionLimitTest, warnsAtMostOnceInAWindow)
{
    for (int round = 0; round < 10; ++round)
    {
        limit.added(90, now);
        limit.added(79, now);
        now += Refusals::window / 10;
    }
    EXPECT_EQ(warnings(), 1U);
    limit.added(90, now);
    EXPECT_EQ(warnings(), 2U);
}

TEST_F(ConnectionLimitTest, countsWhatFindsNoRoom)
{
    limit.full();
    limit.full();
    EXPECT_EQ(refusals.count(Refusal::Connections), 2U);
    EXPECT_TRUE(
        log.has(2, "All 100 connections to the post port are in use: a new one replaces one that has not "
                   "shaken hands, or is refused"));
}

TEST_F(ConnectionLimitTest, followsAChangeOfTheLimit)
{
    most = 1000;
    EXPECT_EQ(limit.most(), 1000U);
    limit.added(100, now);
    EXPECT_TRUE(log.lines().empty());
}
