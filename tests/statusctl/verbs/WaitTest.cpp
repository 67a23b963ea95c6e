// wait, against a real broker.

#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"

namespace
{

class WaitTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
};

const Outcome tooLate = failure(124, "statusctl: wait: the time is over");

} // namespace

TEST_F(WaitTest, returnsAtOnceIfTheConditionHolds)
{
    statusctl({"set", "door", "open"});
    EXPECT_EQ(statusctl({"wait", "door=open"}), success("open\n"));
    EXPECT_EQ(statusctl({"wait", "door!=shut"}), success("open\n"));
    EXPECT_EQ(statusctl({"wait", "door"}), success("open\n"));
}

TEST_F(WaitTest, returnsAsSoonAsTheConditionHolds)
{
    TestProcess wait(commandOf({"wait", "door=shut"}));
    statusctl({"set", "door", "open"});
    EXPECT_EQ(wait.waitForExit(std::chrono::milliseconds(50)), std::nullopt);
    statusctl({"set", "door", "shut"});
    EXPECT_EQ(wait.waitForExit(), 0);
    EXPECT_EQ(wait.readRest(), "shut\n");
}

TEST_F(WaitTest, doesNotReturnWhileTheConditionDoesNotHold)
{
    statusctl({"set", "door", "open", "empty", ""});
    EXPECT_EQ(statusctl({"-t", "200ms", "wait", "door=shut"}), tooLate);
    EXPECT_EQ(statusctl({"-t", "200ms", "wait", "door!=open"}), tooLate);
    EXPECT_EQ(statusctl({"-t", "200ms", "wait", "empty"}), tooLate);
    EXPECT_EQ(statusctl({"-t", "200ms", "wait", "none"}), tooLate);
    EXPECT_EQ(statusctl({"-t", "200ms", "wait", "none!=x"}), tooLate);
}

// Between looking and waiting nothing can slip through: the value is set once, at any moment of the start.
TEST_F(WaitTest, aValueSetWhileItStartsIsNotMissed)
{
    for (int round = 0; round < 30; ++round)
    {
        const std::string value = std::to_string(round);
        TestProcess wait(commandOf({"wait", "door=" + value}));
        TestProcess set(commandOf({"set", "door", value}));
        EXPECT_EQ(wait.waitForExit(), 0) << "round " << round;
        EXPECT_EQ(set.waitForExit(), 0);
    }
}

TEST_F(WaitTest, severalConditionsMustAllHold)
{
    statusctl({"set", "a", "1", "b", "2"});
    EXPECT_EQ(statusctl({"wait", "a=1", "b!=3"}), success("a=1\nb=2\n"));
    EXPECT_EQ(statusctl({"-t", "200ms", "wait", "a=1", "b=3"}), tooLate);
}

TEST_F(WaitTest, withAnyOneIsEnough)
{
    statusctl({"set", "a", "1", "b", "2"});
    EXPECT_EQ(statusctl({"wait", "--any", "a=2", "b=2"}), success("b=2\n"));
}

TEST_F(WaitTest, aRegularExpressionMustMatch)
{
    statusctl({"set", "version", "2.10"});
    EXPECT_EQ(statusctl({"wait", "version", "--match", "^2\\.[0-9]+$"}), success("2.10\n"));
    EXPECT_EQ(statusctl({"-t", "200ms", "wait", "version", "--match", "^3"}), tooLate);
}

TEST_F(WaitTest, jsonHoldsTheMatchingValues)
{
    statusctl({"set", "door", "open"});
    EXPECT_EQ(statusctl({"-j", "wait", "door=open"}), success("{\"values\":{\"door\":\"open\"}}\n"));
}

TEST_F(WaitTest, aBrokenExpressionOrConditionIsWrongUsage)
{
    EXPECT_EQ(statusctl({"wait", "a", "--match", "("}).code, 2);
    EXPECT_EQ(statusctl({"wait", "=x"}), failure(2, "statusctl: wait: \"=x\" names no key"));
    EXPECT_EQ(statusctl({"wait"}).code, 2);
}
