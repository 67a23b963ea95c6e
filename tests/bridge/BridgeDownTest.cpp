#include "tests/bridge/BridgeFixture.h"

namespace
{

const std::string down = "insecure = true\ndesired-keys = set.*\ncommands = do.*\n";

/// A bridge that also takes what the server wants.
class BridgeDownTest : public BridgeTest
{
protected:
    std::string valueOnDevice(const std::string& key)
    {
        return mRequester.ask(R"({"getClientInfoValue":")" + key + R"("})");
    }

    static std::string valueReply(const std::string& value)
    {
        return R"({"statusValue":")" + value + R"("})";
    }

    // A command that may take a minute.
    static void command(MqttObserver& observer, const std::string& topic, const std::string& payload)
    {
        observer.publish("fleet/truck/cmd/" + topic, payload, false, 60);
    }

    static std::string resultOf(MqttObserver& observer, const std::string& topic)
    {
        const std::string result = "fleet/truck/cmd/" + topic + "/result";
        EXPECT_TRUE(observer.waitFor([&] { return !observer.valueOf(result).empty(); })) << topic;
        return observer.valueOf(result);
    }

    RawRequester mRequester;
};

TEST_F(BridgeDownTest, aDesiredValueIsPostedAndReported)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":3,"value":"on"})", true);
    EXPECT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp", R"({"version":3,"value":"on"})"));
    EXPECT_EQ(valueOnDevice("set.lamp"), valueReply("on"));
    EXPECT_TRUE(observer.waitForValue("fleet/truck/status/set.lamp", "on"));
}

TEST_F(BridgeDownTest, anOlderVersionIsIgnored)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":3,"value":"on"})", true);
    ASSERT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp", R"({"version":3,"value":"on"})"));
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":2,"value":"off"})", true);
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":4,"value":"dim"})", true);
    ASSERT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp", R"({"version":4,"value":"dim"})"));
    EXPECT_EQ(observer.payloadsOf("fleet/truck/reported/set.lamp").size(), 2U);
}

TEST_F(BridgeDownTest, aLaterBridgeDoesNotPostAnAppliedVersionAgain)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":3,"value":"on"})", true);
    ASSERT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp", R"({"version":3,"value":"on"})"));
    post("set.lamp", "by hand");
    ASSERT_TRUE(observer.waitForValue("fleet/truck/status/set.lamp", "by hand"));
    killBridge();
    startBridge(down);
    EXPECT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp", R"({"version":3,"repeated":true})"));
    EXPECT_EQ(valueOnDevice("set.lamp"), valueReply("by hand"));
}

TEST_F(BridgeDownTest, onlyAllowedKeysAreSet)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    observer.publish("fleet/truck/desired/door", R"({"version":1,"value":"open"})", true);
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":1,"value":"on"})", true);
    ASSERT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp", R"({"version":1,"value":"on"})"));
    EXPECT_EQ(valueOnDevice("door"), valueReply(""));
}

TEST_F(BridgeDownTest, aMalformedWishIsReported)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    for (const char* wrong :
         {"on", R"({"version":0,"value":"on"})", R"({"version":"1","value":"on"})",
          R"({"version":1,"value":2})", R"({"version":1})", "[[[[[[[[[1]]]]]]]]]", "\xff\xfe"})
        observer.publish("fleet/truck/desired/set.lamp", wrong, false);
    observer.publish("fleet/truck/desired/set.last", R"({"version":1,"value":"on"})", false);
    ASSERT_TRUE(observer.waitForValue("fleet/truck/reported/set.last", R"({"version":1,"value":"on"})"));
    EXPECT_EQ(observer.payloadsOf("fleet/truck/reported/set.lamp").size(), 7U);
    EXPECT_NE(observer.valueOf("fleet/truck/reported/set.lamp").find("error"), std::string::npos);
    EXPECT_EQ(valueOnDevice("set.lamp"), valueReply(""));
}

TEST_F(BridgeDownTest, aValueThatTheBrokerRefusesIsReported)
{
    mBroker->stop();
    mBroker.emplace(std::vector<std::string>{"--max-value-bytes", "10"});
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":1,"value":"longer than ten"})", true);
    EXPECT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp",
                                      R"({"version":1,"error":"the broker has another value"})"));
}

TEST_F(BridgeDownTest, aDesiredValueWaitsForTheBroker)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    mBroker->kill();
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":1,"value":"on"})", true);
    mBroker.emplace();
    EXPECT_TRUE(observer.waitForValue("fleet/truck/reported/set.lamp", R"({"version":1,"value":"on"})"));
    EXPECT_EQ(valueOnDevice("set.lamp"), valueReply("on"));
}

TEST_F(BridgeDownTest, aCommandBecomesAnEventOnceAndIsAnswered)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    command(observer, "do.wash/17", "hot");
    EXPECT_EQ(resultOf(observer, "do.wash/17"), R"({"result":"posted"})");
    command(observer, "do.wash/17", "hot");
    command(observer, "do.wash/18", "cold");
    EXPECT_EQ(resultOf(observer, "do.wash/18"), R"({"result":"posted"})");
    ASSERT_TRUE(
        observer.waitFor([&] { return observer.payloadsOf("fleet/truck/event/do.wash").size() >= 2; }));
    EXPECT_EQ(observer.payloadsOf("fleet/truck/event/do.wash").size(), 2U);
}

TEST_F(BridgeDownTest, commandsThatMayBeOldAreRefusedAndCounted)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    observer.publish("fleet/truck/cmd/do.wash/1", "hot", true, 60);
    EXPECT_EQ(resultOf(observer, "do.wash/1"), R"({"result":"refused","reason":"retained"})");
    observer.publish("fleet/truck/cmd/do.wash/2", "hot", false);
    EXPECT_EQ(resultOf(observer, "do.wash/2"), R"({"result":"refused","reason":"without expiry"})");
    command(observer, "other/3", "x");
    EXPECT_EQ(resultOf(observer, "other/3"), R"({"result":"refused","reason":"not allowed"})");
    EXPECT_TRUE(observer.payloadsOf("fleet/truck/event/do.wash").empty());
    const auto counts = [&]
    { return observer.valueOf("fleet/truck/online").find("\"commandsRefused\":3") != std::string::npos; };
    mBridge->signal(SIGHUP); // says online again
    EXPECT_TRUE(observer.waitFor(counts)) << observer.valueOf("fleet/truck/online");
}

TEST_F(BridgeDownTest, aCommandThatExpiresWhileTheBrokerIsAwayIsRefused)
{
    startBridge(down);
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    mBroker->kill();
    observer.publish("fleet/truck/cmd/do.wash/1", "hot", false, 60); // is being posted
    observer.publish("fleet/truck/cmd/do.wash/2", "hot", false, 1);
    ASSERT_FALSE(observer.waitFor([] { return false; }, std::chrono::milliseconds(1500)));
    mBroker.emplace();
    EXPECT_EQ(resultOf(observer, "do.wash/2"), R"({"result":"refused","reason":"expired"})");
}

TEST_F(BridgeDownTest, withoutConfigurationTheServerChangesNothing)
{
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    observer.publish("fleet/truck/desired/set.lamp", R"({"version":1,"value":"on"})", true);
    command(observer, "do.wash/1", "hot");
    observer.publish("fleet/truck/online", R"({"online":false,"session":1})", true);
    ASSERT_TRUE(observer.waitFor([&] { return !isOnline(observer); }));
    ASSERT_TRUE(waitUntilOnline(observer)); // it has seen everything before
    EXPECT_EQ(valueOnDevice("set.lamp"), valueReply(""));
    EXPECT_EQ(observer.valueOf("fleet/truck/reported/set.lamp"), "");
}

} // namespace
