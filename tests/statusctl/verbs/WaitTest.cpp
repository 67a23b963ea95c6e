// wait, with a real broker.

#include <chrono>
#include <gtest/gtest.h>
#include <regex>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/Wait.h"

namespace
{

class WaitTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
};

Outcome tooLate(const std::string& why)
{
    return failure(124, "statusctl: wait: timed out after: " + why);
}

// What the tool says when its time is over, without the time: a busy machine may need more than a short one
// to reach the broker and get its values.
Outcome waitInVain(const Words& conditions)
{
    Outcome outcome;
    for (auto time = std::chrono::milliseconds(200); time < testDeadline; time *= 2)
    {
        Words words{"-t", std::to_string(time.count()) + "ms", "wait"};
        words.insert(words.end(), conditions.begin(), conditions.end());
        outcome = statusctl(words);
        const std::regex notThere("no broker within|no (values|answer) from the broker");
        if (!std::regex_search(outcome.errors, notThere))
            break;
    }
    outcome.errors =
        std::regex_replace(outcome.errors, std::regex("timed out after [^:]*"), "timed out after");
    return outcome;
}

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
    const auto wait = [](const std::string& condition) { return waitInVain({condition}); };
    EXPECT_EQ(wait("door=shut"), tooLate(R"(door is "open", wanted "shut")"));
    EXPECT_EQ(wait("door!=open"), tooLate(R"(door is "open", wanted not "open")"));
    EXPECT_EQ(wait("empty"), tooLate(R"(empty is "", wanted a non-empty value)"));
    EXPECT_EQ(wait("none"), tooLate("none is missing, wanted a non-empty value"));
    EXPECT_EQ(wait("none exists"), tooLate("none is missing, wanted any value"));
    EXPECT_EQ(wait("none!=x"), tooLate(R"(none is missing, wanted not "x")"));
    EXPECT_EQ(wait("door>5"), tooLate(R"(door is "open", wanted > 5)"));
}

// No gap between looking and waiting: the value is set once, at a random moment of the start.
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
    EXPECT_EQ(waitInVain({"a=1", "b=3", "c"}),
              tooLate(R"(b is "2", wanted "3"; c is missing, wanted a non-empty value)"));
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
    EXPECT_EQ(waitInVain({"version", "--match", "^3"}),
              tooLate(R"(version is "2.10", wanted a match of "^3")"));
}

TEST_F(WaitTest, numbersAreComparedAsNumbers)
{
    statusctl({"set", "battery", "9"});
    TestProcess wait(commandOf({"wait", "battery>9"}));
    EXPECT_EQ(statusctl({"wait", "battery<10", "battery>=9", "battery<=9"}), success("battery=9\n"));
    EXPECT_EQ(wait.waitForExit(std::chrono::milliseconds(50)), std::nullopt);
    statusctl({"set", "battery", "10"});
    EXPECT_EQ(wait.waitForExit(), 0);
}

TEST_F(WaitTest, existsMayBeAWordOfItsOwn)
{
    statusctl({"set", "a", "", "b", "1"});
    EXPECT_EQ(statusctl({"wait", "a", "exists"}), success("\n"));
    EXPECT_EQ(statusctl({"wait", "a exists", "b"}), success("a=\nb=1\n"));
}

TEST_F(WaitTest, aLongValueIsCutOffInTheMessage)
{
    statusctl({"set", "note", std::string(50, 'x')});
    EXPECT_EQ(waitInVain({"note=y"}), tooLate("note is \"" + std::string(40, 'x') + "...\", wanted \"y\""));
}

TEST_F(WaitTest, jsonHoldsTheMatchingValues)
{
    statusctl({"set", "door", "open"});
    EXPECT_EQ(statusctl({"-j", "wait", "door=open"}), success("{\"values\":{\"door\":\"open\"}}\n"));
}

TEST_F(WaitTest, aBrokenExpressionOrConditionIsWrongUsage)
{
    EXPECT_EQ(statusctl({"wait", "a", "--match", "("}).code, 2);
    EXPECT_EQ(statusctl({"wait", "=x"}), failure(2, "statusctl: wait: missing key in \"=x\""));
    EXPECT_EQ(statusctl({"wait", "a==x"}),
              failure(2,
                      "statusctl: wait: \"a==x\" is not a condition; use KEY, \"KEY exists\", or KEY=VALUE "
                      "(or one of != < <= > >= instead of =)"));
    EXPECT_EQ(statusctl({"wait"}).code, 2);
}
