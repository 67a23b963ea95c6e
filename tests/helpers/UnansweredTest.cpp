// Syncs and waits with a broker whose answers are wrong or missing.

#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <utility>

#include "statusmanager/helpers/Waiting.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/LogCapture.h"

namespace
{

using namespace std::chrono_literals;

using Frames = ScriptedBroker::Frames;

class Unanswered : public testing::Test
{
protected:
    LogCapture log;
    ScriptedBroker broker;
    Client client{broker};
};

} // namespace

TEST_F(Unanswered, syncsEndTheHealthForGood)
{
    broker.keepSilent();
    EXPECT_FALSE(status::sync(100ms, *client));
    EXPECT_FALSE(status::isHealthy(*client));
    broker.answerWith(Frames{"SyncAck"});
    EXPECT_FALSE(status::sync(1s, *client)); // the request channel is closed
    EXPECT_FALSE(status::isHealthy(*client));
}

TEST_F(Unanswered, areNotTheSyncsOfWhichPostsWereLost)
{
    const auto lost = std::make_shared<bool>(true);
    broker.answerWith([lost](const std::string&) -> std::optional<Frames>
                      { return Frames{std::exchange(*lost, false) ? "SyncLost" : "SyncAck"}; });
    EXPECT_FALSE(status::sync(5s, *client));
    EXPECT_TRUE(status::isHealthy(*client));
    EXPECT_TRUE(status::sync(5s, *client));
}

TEST_F(Unanswered, subscriptionsDoNotHoldUpAWaitBeyondItsTime)
{
    broker.keepSilent();
    const std::size_t before = broker.requests().size();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(status::waitFor(
                  "k", [](const std::string&) { return true; }, 50ms, *client),
              std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, testDeadline);
    EXPECT_TRUE(broker.waitForRequests(before + 1)); // the manager still waits for the answer
    broker.reply({"{}"});
}
