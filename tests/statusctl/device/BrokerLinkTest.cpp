#include "statusctl/device/BrokerLink.h"

#include <gtest/gtest.h>

#include "tests/support/BrokerProcess.h"
#include "tests/support/Wait.h"

namespace
{

class BrokerLinkTest : public testing::Test
{
protected:
    // Waits until the link has reported this.
    void awaitTold(bool isUp)
    {
        ASSERT_TRUE(eventually([&] { return mTold == (isUp ? 1 : -1); }));
    }

    std::atomic<int> mTold{0};
    BrokerLink link{[this](bool isUp) { mTold = isUp ? 1 : -1; }};
};

} // namespace

TEST_F(BrokerLinkTest, withoutABrokerThereAreNoValuesAndNobodyWaitsForThem)
{
    EXPECT_FALSE(link.values());
    EXPECT_EQ(mTold, 0);
}

TEST_F(BrokerLinkTest, tellsThatTheBrokerHasComeAndGone)
{
    BrokerProcess broker;
    awaitTold(true);
    EXPECT_EQ(link.values(), StatusMap());
    broker.kill();
    awaitTold(false);
    EXPECT_FALSE(link.values()) << "otherwise it waits for the next broker";
}
