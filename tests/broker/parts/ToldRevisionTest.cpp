// The revision that a subscriber has certainly received, with bytes as arguments.

#include "broker/ToldRevision.h"

#include <gtest/gtest.h>

namespace
{

class ToldRevisionTest : public testing::Test
{
protected:
    ToldRevisionTest() { told.begin(10); }

    ToldRevision told;
};

} // namespace

TEST_F(ToldRevisionTest, isFirstThatOfTheSubscription)
{
    EXPECT_EQ(told.revision(), 10U);
    told.look(10, 100, 0);
    EXPECT_EQ(told.revision(), 10U);
}

TEST_F(ToldRevisionTest, goesOnWhenTheSubscribersSystemHasTheBytes)
{
    told.look(20, 100, 100);
    EXPECT_EQ(told.revision(), 20U);
}

TEST_F(ToldRevisionTest, staysWhileOneByteIsMissing)
{
    told.look(20, 100, 99);
    EXPECT_EQ(told.revision(), 10U);
    told.look(20, 100, 100);
    EXPECT_EQ(told.revision(), 20U);
}

TEST_F(ToldRevisionTest, goesOnAlsoWhereTheSubscriberIsNeverThroughWithAll)
{
    told.look(20, 100, 0);
    told.look(30, 200, 90);
    EXPECT_EQ(told.revision(), 10U);
    told.look(40, 300, 190);
    EXPECT_EQ(told.revision(), 20U);
    told.look(50, 400, 300);
    EXPECT_EQ(told.revision(), 40U);
}

TEST_F(ToldRevisionTest, doesNotGoBackWhereASubscriberIsToldAllAgain)
{
    told.look(20, 100, 100);
    told.look(0, 200, 200);
    EXPECT_EQ(told.revision(), 20U);
}

TEST_F(ToldRevisionTest, beginsAnewWithAnotherSubscription)
{
    told.look(20, 100, 50);
    told.begin(15);
    told.look(15, 100, 100);
    EXPECT_EQ(told.revision(), 15U);
}
