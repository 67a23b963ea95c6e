#include <string>

#include "tests/bridge/BridgeFixture.h"

namespace
{

int64_t sessionIn(const std::string& payload)
{
    const std::string name = "\"session\":";
    const std::size_t at = payload.find(name);
    return at == std::string::npos ? 0 : std::stoll(payload.substr(at + name.size()));
}

bool saysOffline(MqttObserver& observer, int64_t session)
{
    const std::string begin = R"({"online":false,"session":)" + std::to_string(session) + ",\"time\":";
    return observer.waitFor(
        [&] { return observer.valueOf("fleet/truck/online").compare(0, begin.size(), begin) == 0; });
}

// How often a bridge has connected to a server.
std::size_t connections(const MqttServer& server)
{
    const std::string log = server.log();
    const std::string line = " as truck (";
    std::size_t count = 0;
    for (std::size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1))
        ++count;
    return count;
}

} // namespace

// -----------------------------------------------------------------------------------------------------
// values

TEST_F(BridgeTest, valuesOfTheDeviceAreRetainedOnTheServer)
{
    post("door", "open");
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitForStatus(observer, {{"door", "open"}}));
    post("lamp", "on");
    EXPECT_TRUE(waitForStatus(observer, {{"door", "open"}, {"lamp", "on"}}));
    MqttObserver later(mServer.port());
    EXPECT_EQ(statusOn(later), (Values{{"door", "open"}, {"lamp", "on"}}));
}

TEST_F(BridgeTest, aResetDeletesTheRetainedMessage)
{
    post("door", "open");
    post("lamp", "on");
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitForStatus(observer, {{"door", "open"}, {"lamp", "on"}}));
    reset("door");
    EXPECT_TRUE(waitForStatus(observer, {{"lamp", "on"}}));
    EXPECT_EQ(statusOn(MqttObserver(mServer.port())), (Values{{"lamp", "on"}}));
}

TEST_F(BridgeTest, namesWithLettersOfTopicsAreEncoded)
{
    post("a/b+c#d%", "1");
    post("$x", "2");
    startBridge();
    MqttObserver observer(mServer.port());
    EXPECT_TRUE(waitForStatus(observer, {{"a%2Fb%2Bc%23d%25", "1"}, {"%24x", "2"}}));
}

TEST_F(BridgeTest, onlyChosenKeysAreSent)
{
    post("net.up", "1");
    post("net.raw", "2");
    post("door", "3");
    startBridge("insecure = true\nkeys = net.*\nexclude-keys = *.raw\n");
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    EXPECT_EQ(statusOn(observer), (Values{{"net.up", "1"}}));
}

TEST_F(BridgeTest, aBusyKeyWithAnIntervalGoesOutOnceWithItsLatestValue)
{
    startBridge("insecure = true\ninterval = sensor 2\n");
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    for (int i = 0; i <= 200; ++i)
        post("sensor", std::to_string(i));
    ASSERT_TRUE(observer.waitForValue("fleet/truck/status/sensor", "200"));
    EXPECT_LE(observer.payloadsOf("fleet/truck/status/sensor").size(), 3U);
}

TEST_F(BridgeTest, manyKeysArriveWithFewMessagesUnderWay)
{
    Values all;
    std::string members;
    for (int i = 0; i < 500; ++i)
    {
        all["key" + std::to_string(i)] = std::to_string(i);
        members += (i == 0 ? "" : ",") + ("\"key" + std::to_string(i)) + "\":\"" + std::to_string(i) + '"';
    }
    poster().post("{\"postStatus\":{" + members + "}}");
    startBridge();
    MqttObserver observer(mServer.port());
    EXPECT_TRUE(waitForStatus(observer, all));
}

// -----------------------------------------------------------------------------------------------------
// online

TEST_F(BridgeTest, onlineIsSaidLastWithSessionTimeAndVersion)
{
    post("door", "open");
    MqttObserver observer(mServer.port());
    startBridge();
    ASSERT_TRUE(waitUntilOnline(observer));
    EXPECT_EQ(statusOn(observer), (Values{{"door", "open"}}));
    const std::string online = observer.valueOf("fleet/truck/online");
    EXPECT_GT(sessionIn(online), 0);
    EXPECT_NE(online.find("\"time\":"), std::string::npos) << online;
    EXPECT_NE(online.find("\"version\":\""), std::string::npos) << online;
    EXPECT_NE(online.find("\"eventsDropped\":0"), std::string::npos) << online;
}

TEST_F(BridgeTest, aCleanStopSaysOffline)
{
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    const int64_t session = sessionIn(observer.valueOf("fleet/truck/online"));
    EXPECT_EQ(stopBridge(), 0);
    EXPECT_TRUE(saysOffline(observer, session));
}

TEST_F(BridgeTest, theWillOfAKilledBridgeSaysOfflineWithItsSession)
{
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    const int64_t session = sessionIn(observer.valueOf("fleet/truck/online"));
    killBridge();
    EXPECT_TRUE(saysOffline(observer, session));
}

TEST_F(BridgeTest, aLateWillOfAnOlderSessionIsCorrected)
{
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    observer.publish("fleet/truck/online", R"({"online":false,"session":1})", true);
    ASSERT_TRUE(observer.waitFor([&] { return !isOnline(observer); }));
    EXPECT_TRUE(waitUntilOnline(observer));
}

TEST_F(BridgeTest, aSessionHasAHigherNumberThanAllBefore)
{
    MqttObserver observer(mServer.port());
    constexpr int64_t farAhead = 99999999999;
    observer.publish("fleet/truck/online", R"({"online":true,"session":99999999999})", true);
    startBridge();
    ASSERT_TRUE(
        observer.waitFor([&] { return sessionIn(observer.valueOf("fleet/truck/online")) > farAhead; }));
    EXPECT_TRUE(waitUntilOnline(observer));
}

// -------------------------------------------------------------------------------------------- absence and
// end

TEST_F(BridgeTest, changesWhileTheServerIsAwayArriveLater)
{
    post("door", "open");
    startBridge();
    {
        MqttObserver observer(mServer.port());
        ASSERT_TRUE(waitUntilOnline(observer));
    }
    mServer.stop(SIGKILL);
    ASSERT_TRUE(mBridge->waitForError("No connection to the server"));
    for (int i = 0; i < 100; ++i)
        post("count", std::to_string(i));
    reset("door");
    mServer.start();
    MqttObserver observer(mServer.port());
    EXPECT_TRUE(waitForStatus(observer, {{"count", "99"}}));
    EXPECT_TRUE(waitUntilOnline(observer));
}

TEST_F(BridgeTest, keysThatWentAwayWhileTheBridgeWasKilledAreDeleted)
{
    post("door", "open");
    post("lamp", "on");
    startBridge();
    {
        MqttObserver observer(mServer.port());
        ASSERT_TRUE(waitUntilOnline(observer));
    }
    killBridge();
    RawRequester().ask(R"({"forgetStatus":["door"]})");
    startBridge();
    MqttObserver observer(mServer.port());
    EXPECT_TRUE(waitForStatus(observer, {{"lamp", "on"}}));
}

TEST_F(BridgeTest, aNewBrokersStateReplacesTheOld)
{
    post("door", "open");
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitForStatus(observer, {{"door", "open"}}));
    mPoster.reset();
    mBroker->kill();
    mBroker.emplace();
    post("lamp", "on");
    EXPECT_TRUE(waitForStatus(observer, {{"lamp", "on"}}));
    EXPECT_TRUE(isOnline(observer));
}

TEST_F(BridgeTest, withoutABrokerNothingIsDeleted)
{
    post("door", "open");
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    mPoster.reset();
    mBroker->kill();
    killBridge();
    ASSERT_TRUE(observer.waitFor([&] { return !isOnline(observer); }));
    startBridge();
    ASSERT_TRUE(eventually([&] { return connections(mServer) == 2; }));
    observer.publish("mark", "the broker starts");
    ASSERT_TRUE(observer.waitForValue("mark", "the broker starts"));
    EXPECT_EQ(statusOn(observer), (Values{{"door", "open"}}));
    EXPECT_FALSE(isOnline(observer));
    mBroker.emplace();
    EXPECT_TRUE(waitForStatus(observer, {})); // only now the value is gone
    EXPECT_TRUE(waitUntilOnline(observer));
}

TEST_F(BridgeTest, aNameThatCannotBeFoundIsTriedAgain)
{
    configure("insecure = true\n");
    const std::string right = readFile(mFolder / "bridge.conf");
    std::string wrong = right;
    wrong.replace(wrong.find("localhost"), 9, "nobody.invalid");
    writeFile(mFolder / "bridge.conf", wrong);
    mBridge.emplace(std::vector<std::string>{STATUSBRIDGE, "--config", mFolder / "bridge.conf"});
    ASSERT_TRUE(mBridge->waitForError("No connection to the server nobody.invalid"));
    writeFile(mFolder / "bridge.conf", right);
    mBridge->signal(SIGHUP);
    MqttObserver observer(mServer.port());
    EXPECT_TRUE(waitUntilOnline(observer));
}

// -----------------------------------------------------------------------------------------------------
// events

TEST_F(BridgeTest, eventsArriveWithNumberAndTimeAndAreNotRetained)
{
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    postEvent("bell", "rang");
    ASSERT_TRUE(observer.waitFor([&] { return !observer.payloadsOf("fleet/truck/event/bell").empty(); }));
    const std::string event = observer.payloadsOf("fleet/truck/event/bell").front();
    EXPECT_EQ(event.substr(0, 15), R"({"id":1,"time":)") << event;
    EXPECT_NE(event.find(R"("value":"rang"})"), std::string::npos) << event;
    EXPECT_EQ(MqttObserver(mServer.port()).valueOf("fleet/truck/event/bell"), "");
}

TEST_F(BridgeTest, eventsWaitForTheServerEvenIfTheBridgeIsKilled)
{
    post("door", "open");
    const std::string options = "insecure = true\nexclude-events = secret\nmax-events = 29\n";
    startBridge(options);
    {
        MqttObserver observer(mServer.port());
        ASSERT_TRUE(waitUntilOnline(observer));
    }
    mServer.stop(SIGTERM);
    ASSERT_TRUE(mBridge->waitForError("No connection to the server"));
    for (int i = 0; i < 30; ++i)
        postEvent("bell", "ring" + std::to_string(i));
    postEvent("secret", "1");
    ASSERT_TRUE(mBridge->waitForError("Dropped 1 events")); // it has them all
    killBridge();
    mServer.start();
    MqttObserver observer(mServer.port());
    startBridge(options);
    ASSERT_TRUE(observer.waitFor([&] { return observer.payloadsOf("fleet/truck/event/bell").size() == 29; }));
    EXPECT_TRUE(observer.payloadsOf("fleet/truck/event/secret").empty());
}

TEST_F(BridgeTest, theOldestEventsAreDroppedAndCounted)
{
    const std::string few = "insecure = true\nmax-events = 5\n";
    startBridge(few);
    {
        MqttObserver observer(mServer.port());
        ASSERT_TRUE(waitUntilOnline(observer));
    }
    mServer.stop(SIGTERM);
    ASSERT_TRUE(mBridge->waitForError("No connection to the server"));
    for (int i = 0; i < 12; ++i)
        postEvent("bell", std::to_string(i));
    ASSERT_TRUE(mBridge->waitForError("7 so far"));
    mServer.start();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(observer.waitFor([&] { return observer.payloadsOf("fleet/truck/event/bell").size() == 5; }));
    EXPECT_NE(observer.payloadsOf("fleet/truck/event/bell").front().find(R"("value":"7")"),
              std::string::npos);
    EXPECT_NE(observer.valueOf("fleet/truck/online").find("\"eventsDropped\":7"), std::string::npos);
}

// ----------------------------------------------------------------------------------------------------
// document

TEST_F(BridgeTest, inTheLayoutDocumentABirthHasTheWholeState)
{
    post("door", "open");
    post("lamp", "on");
    startBridge("insecure = true\nlayout = document\n");
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    const std::string birth = observer.valueOf("fleet/truck/birth");
    EXPECT_NE(birth.find(R"("sequence":1,)"), std::string::npos) << birth;
    EXPECT_NE(birth.find(R"("values":{"door":"open","lamp":"on"}})"), std::string::npos) << birth;
    EXPECT_EQ(sessionIn(birth), sessionIn(observer.valueOf("fleet/truck/online")));
    EXPECT_EQ(statusOn(observer), Values());
}

TEST_F(BridgeTest, inTheLayoutDocumentChangesFollowInNumberedBatches)
{
    startBridge("insecure = true\nlayout = document\n");
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    post("door", "open");
    ASSERT_TRUE(observer.waitFor([&] { return observer.payloadsOf("fleet/truck/data").size() == 1; }));
    for (int i = 0; i < 50; ++i)
        post("key" + std::to_string(i), "1");
    reset("door");
    const auto last = [&] { return observer.payloadsOf("fleet/truck/data").back(); };
    ASSERT_TRUE(observer.waitFor([&] { return last().find(R"("door":"")") != std::string::npos; }));
    EXPECT_LE(observer.payloadsOf("fleet/truck/data").size(), 4U);
    EXPECT_NE(observer.payloadsOf("fleet/truck/data").front().find(R"("sequence":2,)"), std::string::npos);
    EXPECT_EQ(MqttObserver(mServer.port()).valueOf("fleet/truck/data"), "");
}

TEST_F(BridgeTest, theServerMayAskForABirthButNotTooOften)
{
    post("door", "open");
    startBridge("insecure = true\nlayout = document\nrebirth-pause = 1\n");
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    const auto births = [&] { return observer.payloadsOf("fleet/truck/birth").size(); };
    const std::size_t before = births();
    for (int i = 0; i < 50; ++i)
        observer.publish("fleet/truck/cmd/rebirth", "now");
    ASSERT_TRUE(observer.waitFor([&] { return births() > before; }));
    post("door", "closed");
    ASSERT_TRUE(observer.waitFor(
        [&]
        {
            return observer.valueOf("fleet/truck/birth").find("closed") != std::string::npos ||
                   !observer.payloadsOf("fleet/truck/data").empty();
        }));
    EXPECT_LE(births(), before + 3);
}

TEST_F(BridgeTest, anotherLayoutDeletesTheMessagesOfTheFirst)
{
    post("door", "open");
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitForStatus(observer, {{"door", "open"}}));
    configure("insecure = true\nlayout = document\n");
    mBridge->signal(SIGHUP);
    ASSERT_TRUE(observer.waitFor([&] { return !observer.valueOf("fleet/truck/birth").empty(); }));
    EXPECT_TRUE(waitForStatus(observer, {}));
    configure("insecure = true\n");
    mBridge->signal(SIGHUP);
    EXPECT_TRUE(waitForStatus(observer, {{"door", "open"}}));
    EXPECT_TRUE(observer.waitForValue("fleet/truck/birth", ""));
}

// ------------------------------------------------------------------------------------------------ discovery

TEST_F(BridgeTest, keysAreDescribedForDiscoveryUntilTheConfigurationChanges)
{
    post("temp 1", "21");
    startBridge("insecure = true\ndiscovery = temp.1 \u00b0C temperature\ndiscovery = door - door\n");
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    const std::string topic = "homeassistant/sensor/truck/temp_2e1/config";
    const std::string text = observer.valueOf(topic);
    for (const char* part :
         {R"("state_topic":"fleet/truck/status/temp.1")", R"("device_class":"temperature")",
          R"("unit_of_measurement":")", R"("unique_id":"fleet_truck_temp_2e1")",
          R"("availability_topic":"fleet/truck/online")", R"("identifiers":["fleet_truck"])"})
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
    EXPECT_EQ(observer.valueOf("homeassistant/sensor/truck/door/config").find("unit"), std::string::npos);
    configure("insecure = true\ndiscovery = door - door\n");
    mBridge->signal(SIGHUP);
    EXPECT_TRUE(observer.waitForValue(topic, ""));
    EXPECT_NE(observer.valueOf("homeassistant/sensor/truck/door/config"), "");
}

// -------------------------------------------------------------------------------------------------- the
// program

TEST_F(BridgeTest, itSpeaksTheOlderVersionOnRequest)
{
    post("door", "open");
    startBridge("insecure = true\nmqtt = 3.1.1\n");
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitForStatus(observer, {{"door", "open"}}));
    EXPECT_TRUE(waitUntilOnline(observer));
    EXPECT_TRUE(mServer.waitForLog("as truck (p2"));
}

TEST_F(BridgeTest, aWrongConfigurationEndsItWithItsLine)
{
    startBridge("colour = red\n");
    EXPECT_EQ(mBridge->waitForExit(), 2);
    EXPECT_NE(mBridge->errors().find("bridge.conf:6: unknown name \"colour\""), std::string::npos)
        << mBridge->errors();
}

TEST_F(BridgeTest, aConfigurationCanBeChecked)
{
    configure("insecure = true\n");
    TestProcess check({STATUSBRIDGE, "--config", mFolder / "bridge.conf", "--check-config"});
    EXPECT_EQ(check.readLine(), "statusbridge: the configuration is valid");
    EXPECT_EQ(check.waitForExit(), 0);
}

TEST_F(BridgeTest, aWrongConfigurationIsNotTakenOverAtReload)
{
    startBridge();
    MqttObserver observer(mServer.port());
    ASSERT_TRUE(waitUntilOnline(observer));
    configure("colour = red\n");
    mBridge->signal(SIGHUP);
    ASSERT_TRUE(mBridge->waitForError("Keeping the old options"));
    post("door", "open");
    EXPECT_TRUE(waitForStatus(observer, {{"door", "open"}}));
}

TEST_F(BridgeTest, itSaysThatAConnectionIsNotEncrypted)
{
    startBridge();
    EXPECT_TRUE(mBridge->waitForError("is not encrypted, because of insecure = true"));
}
