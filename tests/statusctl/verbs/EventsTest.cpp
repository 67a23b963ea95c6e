// event, with a real broker.

#include <chrono>
#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"

namespace
{

class EventsTest : public testing::Test
{
protected:
    // Posts the event again until the process has ended: it may not be listening at first.
    static bool postUntilGone(TestProcess& process, const Words& event)
    {
        return eventually(
            [&]
            {
                statusctl(event);
                return process.waitForExit(std::chrono::milliseconds(100)).has_value();
            });
    }

    BrokerProcess mBroker;
};

} // namespace

TEST_F(EventsTest, oneThatIsWaitedForPrintsItsValue)
{
    TestProcess wait(commandOf({"event", "--wait", "bell"}));
    ASSERT_TRUE(postUntilGone(wait, {"event", "bell", "rang\ntwice"}));
    EXPECT_EQ(wait.waitForExit(), 0);
    EXPECT_EQ(wait.readRest(), "rang\\ntwice\n");
}

TEST_F(EventsTest, postingOnePrintsNothing)
{
    EXPECT_EQ(statusctl({"event", "bell", "rang"}), success(""));
    EXPECT_EQ(statusctl({"event", "bell"}), success(""));
}

TEST_F(EventsTest, oneCanBePostedLater)
{
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(statusctl({"event", "bell", "--after", "300ms"}), success(""));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(EventsTest, anotherOneDoesNotEndTheWait)
{
    TestProcess wait(commandOf({"-t", "500ms", "event", "--wait", "bell"}));
    ASSERT_TRUE(postUntilGone(wait, {"event", "other"}));
    EXPECT_EQ(wait.waitForExit(), 124);
    EXPECT_EQ(wait.readRest(), "");
    EXPECT_EQ(wait.errors(), "statusctl: event: timed out after 500ms: no event \"bell\"\n");
}

TEST_F(EventsTest, waitingExcludesAValue)
{
    EXPECT_EQ(statusctl({"event", "bell", "x", "--wait"}).code, 2);
}
