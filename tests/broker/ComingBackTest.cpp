// Clients whose broker is killed and restarted: what becomes of messages under way, and what a client may
// rely on.

#include <atomic>
#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <memory>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProxyClient.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/UnreadBytes.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

/// Runs with and without a state file.
class ComingBackTest : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        start();
        client.emplace();
    }

    bool keepsState() const { return GetParam(); }

    void start()
    {
        const std::vector<std::string> options{"--state", folder / "state"};
        broker = std::make_unique<BrokerProcess>(keepsState() ? options : std::vector<std::string>());
    }

    void startAnew()
    {
        broker->kill();
        start();
    }

    // Stops the broker: everything the client sends from now on dies with it.
    void stop() { broker->process().suspend(); }

    // Makes a post that dies with the broker.
    void losePost()
    {
        stop();
        (*client)->postStatus("lost", "1");
        ASSERT_TRUE(eventually([] { return unreadBytes(ZmtpPeer::postPort) != 0; }));
        broker->kill();
    }

    // Waits until the client is connected again and has been silent for longer than a new client needs.
    void waitUntilItIsBack()
    {
        RawRequester requester;
        const auto has = [&](const char* connections, uint64_t count)
        { return eventually([&] { return brokerStatistic(requester, connections) >= count; }); };
        ASSERT_TRUE(has("clients.requests", 2) && has("clients.posts", 1) && has("clients.notifications", 1));
        waitForAnEmptyAnswer();
    }

    // Waits about a second: then the broker sends silent connections its empty answer.
    static void waitForAnEmptyAnswer()
    {
        ZmtpPeer silent(ZmtpPeer::requestPort);
        ASSERT_TRUE(silent.shakeHands());
        ASSERT_TRUE(silent.readFrame());
    }

    template <class Call>
    auto underWay(Call call)
    {
        auto result = std::async(std::launch::async, std::move(call));
        EXPECT_TRUE(eventually([] { return unreadBytes(ZmtpPeer::requestPort) != 0; }));
        return result;
    }

    TemporaryFolder folder;
    std::unique_ptr<BrokerProcess> broker;
    std::optional<ProxyClient> client;
};

constexpr int withoutLimit = -1;

} // namespace

INSTANTIATE_TEST_SUITE_P(, ComingBackTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "withStateFile" : "withoutStateFile"; });

// --------------------------------------------------------------------------------------------- hung queries

TEST_P(ComingBackTest, aQueryThatWasUnderWayGetsTheNewBrokersAnswer)
{
    for (int round = 0; round < 3; ++round)
    {
        (*client)->setCounterValue("c", 10);
        ASSERT_TRUE(eventually([&] { return (*client)->sync(withoutLimit); }));
        stop();
        auto value = underWay([&] { return (*client)->incrementCounter("c"); });
        startAnew();
        ASSERT_EQ(value.wait_for(testDeadline), std::future_status::ready);
        EXPECT_EQ(value.get(), keepsState() ? 11U : 1U);
    }
}

TEST_P(ComingBackTest, aClientThatAsksAllTheTimeGoesOnAfterEachKill)
{
    std::atomic<unsigned> answers{0};
    Gate enough;
    std::thread asking(
        [&]
        {
            for (; !enough.isOpen(); ++answers)
                (*client)->getCounterValue("c");
        });
    for (int round = 0; round < 5; ++round)
    {
        const unsigned before = answers;
        EXPECT_TRUE(eventually([&] { return answers > before + 10; })) << round;
        startAnew();
    }
    const unsigned before = answers;
    EXPECT_TRUE(eventually([&] { return answers > before + 1; }));
    enough.open();
    asking.join();
}

TEST_P(ComingBackTest, aSyncThatWasUnderWayReturnsFalse)
{
    stop();
    auto isSynced = underWay([&] { return (*client)->sync(withoutLimit); });
    startAnew();
    ASSERT_EQ(isSynced.wait_for(testDeadline), std::future_status::ready);
    EXPECT_FALSE(isSynced.get());
    EXPECT_TRUE((*client)->sync(withoutLimit));
}

// ------------------------------------------------------------------------------------------------ lost posts

TEST_P(ComingBackTest, afterPostsThatDiedWithTheBrokerSyncIsFalseOnce)
{
    losePost();
    start();
    waitUntilItIsBack();
    waitForAnEmptyAnswer(); // the client's own empty answer came before
    EXPECT_FALSE((*client)->sync(withoutLimit));
    EXPECT_EQ((*client)->getClientInfoValue("lost"), "") << "the post is lost";
    EXPECT_TRUE((*client)->sync(withoutLimit));
    EXPECT_TRUE((*client)->sync(withoutLimit));
}

// The client may take the empty answer for the answer to its Sync.
TEST_P(ComingBackTest, aSyncInTheMomentOfTheEmptyAnswerIsFalseOnce)
{
    losePost();
    start();
    waitUntilItIsBack();
    EXPECT_FALSE((*client)->sync(withoutLimit));
    EXPECT_TRUE((*client)->sync(withoutLimit));
}

TEST_P(ComingBackTest, aQueryInBetweenDoesNotHideThatPostsWereLost)
{
    losePost();
    start();
    EXPECT_EQ((*client)->getClientInfoValue("lost"), "") << "asked before it was back";
    EXPECT_FALSE((*client)->sync(withoutLimit));
    EXPECT_TRUE((*client)->sync(withoutLimit));
}

// A Sync that waits for the broker looks like a new client's. Only the state file shows that there was
// another broker before, and only at the beginning. On a busy machine some come later.
TEST_P(ComingBackTest, aSyncThatWaitsForTheNewBrokerKnowsOfLostPostsByTheStateFileOnly)
{
    constexpr int mostRounds = 10;
    bool isTrue = true;
    for (int round = 0; round < mostRounds && isTrue; ++round)
    {
        losePost();
        auto isSynced = std::async(std::launch::async, [&] { return (*client)->sync(withoutLimit); });
        start();
        ASSERT_EQ(isSynced.wait_for(testDeadline), std::future_status::ready);
        isTrue = isSynced.get();
        EXPECT_TRUE((*client)->sync(withoutLimit));
    }
    EXPECT_EQ(isTrue, !keepsState());
}

TEST_P(ComingBackTest, whoeverStartsAfterwardsIsToldTheTruth)
{
    losePost();
    start();
    waitUntilItIsBack();
    EXPECT_EQ(RawRequester().ask("Sync"), "SyncAck");
    TestProcess newClient({TESTCLIENT, "set", "k", "v"});
    EXPECT_EQ(newClient.waitForExit(), 0) << "the new client's sync was true";
    EXPECT_EQ((*client)->getClientInfoValue("k"), "v");
}
