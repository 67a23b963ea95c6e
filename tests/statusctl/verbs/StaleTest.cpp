// watch --stale, with a real broker and with a scripted broker.

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "statusctl/device/Change.h"
#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ScriptedBroker.h"

namespace
{

class StaleTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
};

} // namespace

TEST_F(StaleTest, aKeyThatIsNotPostedIsToldOfOnceUntilItIsPostedAgain)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf({"watch", "--stale", "500ms", "--updates", "door"}));
    EXPECT_EQ(nextLine(watch), "stale door open");
    statusctl({"set", "lamp", "on"}); // a key that it does not watch
    statusctl({"set", "door", "open"});
    EXPECT_EQ(nextLine(watch), "stale door open");
    statusctl({"set", "door", "shut"});
    EXPECT_EQ(nextLine(watch), "changed door shut");
    EXPECT_EQ(nextLine(watch), "stale door shut");
}

TEST_F(StaleTest, aKeyThatIsPostedAgainAndAgainIsNotTold)
{
    statusctl({"set", "lamp", "on", "door", "open"});
    TestProcess watch(commandOf({"watch", "--stale", "3s", "--updates", "door", "lamp"}));
    std::atomic<bool> isPosting{true};
    std::thread poster(
        [&]
        {
            while (isPosting)
                statusctl({"set", "door", "open"});
        });
    EXPECT_EQ(nextLine(watch), "stale lamp on");
    isPosting = false;
    poster.join();
    EXPECT_EQ(nextLine(watch), "stale door open");
}

TEST_F(StaleTest, aKeyThatAppearsLaterIsToldOf)
{
    TestProcess watch(commandOf({"watch", "--stale", "200ms", "net.*"}));
    EXPECT_EQ(nextLine(watch), "synced");
    statusctl({"set", "net.rx", "1"});
    EXPECT_EQ(nextLine(watch), "changed net.rx 1");
    EXPECT_EQ(nextLine(watch), "stale net.rx 1");
}

TEST_F(StaleTest, asJsonItIsAChangeOfItsKind)
{
    statusctl({"set", "door", "open"});
    const Outcome outcome = statusctl({"watch", "-j", "--stale", "100ms", "--updates", "-n", "1", "door"});
    const std::optional<Change> change = readChange(outcome.output);
    ASSERT_TRUE(change) << outcome;
    EXPECT_EQ(change->kind, Change::Kind::Stale);
    EXPECT_EQ(change->name, "door");
    EXPECT_EQ(change->value, "open");
}

TEST_F(StaleTest, aTimeOutEndsIt)
{
    const Outcome outcome = statusctl({"-t", "300ms", "watch", "--stale", "100ms", "door"});
    EXPECT_EQ(outcome.code, 124) << outcome;
}

TEST_F(StaleTest, aTimeThatIsTooShortIsRefused)
{
    EXPECT_EQ(statusctl({"watch", "--stale", "99ms", "door"}),
              failure(2, "statusctl: watch: --stale must be at least 100ms"));
}

TEST(StaleWithoutDetailsTest, aBrokerThatDoesNotTellIsExitCode5)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    const Outcome outcome = statusctl({"watch", "--stale", "1h", "door"});
    EXPECT_EQ(outcome.code, 5);
    EXPECT_EQ(outcome.errors, "statusctl: watch: this broker does not report when values were posted\n");
}
