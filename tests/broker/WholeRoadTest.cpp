// Processes that use the library, with the real broker.

#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "common/EventThread.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProxyClient.h"
#include "tests/support/RawClient.h"
#include "tests/support/RecordingListener.h"

namespace
{

using Command = std::vector<std::string>;

class WholeRoad : public testing::Test
{
protected:
    int runClient(const std::string& verb, const std::string& key, const std::string& value)
    {
        TestProcess process(Command{TESTCLIENT, verb, key, value});
        return process.waitForExit().value_or(-1);
    }

    BrokerProcess broker;
};

// While clients start, a value may arrive twice: skips lines in between.
bool waitForLine(TestProcess& process, const std::string& text)
{
    while (const std::optional<std::string> line = process.readLine())
    {
        if (*line == text)
            return true;
    }
    return false;
}

class WithListener : public WholeRoad
{
protected:
    void TearDown() override
    {
        client->unregisterListener(&listener);
        thread.stop();
    }

    Orvane::EventThread thread{"listener", 0};
    RecordingListener listener;
    ProxyClient client;
};

} // namespace

TEST_F(WithListener, aValuePostedByAnotherProcessReachesTheListener)
{
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "k");
    ASSERT_TRUE(listener.waitForUpdates(1));
    EXPECT_EQ(runClient("set", "k", "from another process"), 0);
    EXPECT_TRUE(listener.waitForValue("k", "from another process"));
}

TEST_F(WithListener, theFirstCallbackCarriesTheValueThatTheDeviceHolds)
{
    EXPECT_EQ(runClient("set", "k", "held"), 0);
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "k");
    ASSERT_TRUE(listener.waitForUpdates(1));
    EXPECT_EQ(listener.updates().front(), (StatusMap{{"k", "held"}}));
}

TEST_F(WithListener, aValueThatIsForgottenReachesTheListenerAsAReset)
{
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "k");
    EXPECT_EQ(runClient("set", "k", "1"), 0);
    EXPECT_TRUE(listener.waitForValue("k", "1"));
    RawRequester requester;
    EXPECT_EQ(requester.ask(R"({"forgetStatus":["k"]})"), R"({"forgotten":["k"]})");
    EXPECT_TRUE(listener.waitForValue("k", ""));
    EXPECT_EQ(client->getClientInfoValues({"k"}), StatusMap());
    EXPECT_EQ(runClient("set", "k", "2"), 0);
    EXPECT_TRUE(listener.waitForValue("k", "2"));
}

TEST_F(WithListener, eventsResetsTimersAndCountersTakeTheWholeRoad)
{
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "k");
    client->registerForEvent(&listener, "e");
    ProxyClient other;
    other->postStatus("k", "1");
    EXPECT_TRUE(listener.waitForValue("k", "1"));
    other->resetStatus("k");
    EXPECT_TRUE(listener.waitForValue("k", ""));
    other->postEvent("e", "v", 0);
    EXPECT_TRUE(listener.waitForEvents(1));
    EXPECT_EQ(other->incrementCounter("c"), 1U);
    EXPECT_EQ(client->getCounterValue("c"), 1U);
    other->setCounterValue("c", 3000000000U);
    EXPECT_TRUE(other->sync(-1));
    EXPECT_EQ(client->getCounterValue("c"), 3000000000U);
    other->startTimer("t");
    EXPECT_TRUE(other->sync(-1));
    EXPECT_GT(client->getTimerLastStarted("t"), 1600000000000000U);
    EXPECT_TRUE(eventually([&] { return client->getTimerElapsed("t") > 1000; }));
    EXPECT_EQ(client->getTimerElapsedSeconds("t"), 0U);
}

TEST_F(WholeRoad, aListeningProcessSeesWhatPostingProcessesPost)
{
    TestProcess watcher(Command{TESTCLIENT, "watch", "k"});
    EXPECT_EQ(watcher.readLine(), "(none)");
    EXPECT_EQ(runClient("set", "k", "1"), 0);
    EXPECT_TRUE(waitForLine(watcher, "k=1"));
    EXPECT_EQ(runClient("set", "other", "x"), 0);
    EXPECT_EQ(runClient("set", "k", "2"), 0);
    EXPECT_TRUE(waitForLine(watcher, "k=2"));
    watcher.closeInput();
    EXPECT_EQ(watcher.waitForExit(), 0);
}

TEST_F(WholeRoad, keysAndValuesComeThroughAsTheyAre)
{
    ProxyClient client;
    const StatusMap values{{"", "empty key"},
                           {"quotes\"\\/", "\"\\"},
                           {"line\nfeed\ttab", std::string("nul\0inside", 10)},
                           {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xbc"},
                           {"long", std::string(5000, 'l')}};
    client->postStatus(values);
    EXPECT_TRUE(client->sync(-1));
    EXPECT_EQ(client->getClientInfo(), values);
}

TEST_F(WholeRoad, aProcessMayEndWhileTheLibrarysThreadsLive)
{
    for (int round = 0; round < 50; ++round)
    {
        TestProcess process(Command{TESTCLIENT, "leave", "k"});
        ASSERT_EQ(process.waitForExit(), 0) << process.errors();
    }
}

TEST(WithoutBroker, getInstanceWaitsUntilABrokerAnswers)
{
    TestProcess client(Command{TESTCLIENT, "set", "k", "v"});
    ASSERT_TRUE(client.waitForError("Attempting to connect to statusbroker"));
    EXPECT_FALSE(client.waitForExit(std::chrono::milliseconds(200))); // the pause itself is tested
    BrokerProcess broker;
    EXPECT_EQ(client.waitForExit(), 0);
    EXPECT_EQ(RawRequester().ask(R"({"getClientInfoValue":"k"})"), R"({"statusValue":"v"})");
}
