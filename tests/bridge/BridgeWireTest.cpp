#include <algorithm>
#include <regex>

#include "tests/bridge/BridgeFixture.h"
#include "tests/bridge/ScriptedServer.h"

namespace
{

using Kind = ScriptedServer::Kind;

/// A bridge and a server that shows each message.
class BridgeWireTest : public BridgeFixture
{
protected:
    /// @param receiveMaximum 0: the server says nothing
    ScriptedServer& startServer(unsigned receiveMaximum = 0)
    {
        ScriptedServer& server = mServer.emplace(receiveMaximum);
        mServerPort = server.port();
        return server;
    }

    void postMany(int keys)
    {
        std::string members;
        for (int i = 0; i < keys; ++i)
            members += (i == 0 ? "\"key" : ",\"key") + std::to_string(i) + "\":\"1\"";
        poster().post("{\"postStatus\":{" + members + "}}");
    }

    bool isOnline()
    {
        const auto packets = mServer->packetsOf(Kind::Publish);
        return std::any_of(packets.begin(), packets.end(), isOnlineMessage);
    }

    static bool isOnlineMessage(const ScriptedServer::Packet& packet)
    {
        return packet.topic == "fleet/truck/online";
    }

    std::size_t countOf(const std::string& topic)
    {
        const auto packets = mServer->packetsOf(Kind::Publish);
        return static_cast<std::size_t>(std::count_if(packets.begin(), packets.end(),
                                                      [&](const ScriptedServer::Packet& each)
                                                      { return each.topic == topic; }));
    }

    // Acknowledges one by one, so that it would be seen if more were sent than room is for.
    void acknowledgeUntilOnline()
    {
        ASSERT_TRUE(mServer->waitFor(
            [this]
            {
                mServer->acknowledgeAll();
                return isOnline();
            }));
    }

    std::optional<ScriptedServer> mServer;
};

TEST_F(BridgeWireTest, aConnectionSubscribesThenSendsValuesThenDeletionsThenOnline)
{
    ScriptedServer& server = startServer();
    post("door", "open");
    post("lamp", "on");
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return isOnline(); }));
    killBridge();
    RawRequester().ask(R"({"forgetStatus":["door"]})");
    const std::size_t before = server.packets().size();
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return countOf("fleet/truck/online") == 2; }));
    std::string order;
    for (auto each = server.packets().begin() + static_cast<long>(before); each != server.packets().end();
         ++each)
        order += (each->kind == Kind::Connect ? "connect" : each->topic + "=" + each->payload.substr(0, 14)) +
                 "\n";
    EXPECT_EQ(order, "connect\nfleet/truck/online=\nfleet/truck/status/lamp=on\nfleet/truck/status/door=\n"
                     "fleet/truck/online={\"online\":true\n");
}

TEST_F(BridgeWireTest, nothingIsSentBeforeTheSubscriptionIsConfirmed)
{
    ScriptedServer& server = startServer();
    server.answersSubscriptions = false;
    post("door", "open");
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return !server.packetsOf(Kind::Subscribe).empty(); }));
    EXPECT_FALSE(server.waitFor([&] { return !server.packetsOf(Kind::Publish).empty(); },
                                std::chrono::milliseconds(500)));
}

TEST_F(BridgeWireTest, eachConnectionHasTheSameClientIdAndANewSession)
{
    ScriptedServer& server = startServer();
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return isOnline(); }));
    server.kick();
    ASSERT_TRUE(server.waitFor([&] { return countOf("fleet/truck/online") == 2; }));
    const auto connects = server.packetsOf(Kind::Connect);
    ASSERT_EQ(connects.size(), 2U);
    const std::string clientId("\0\x05truck", 7);
    EXPECT_NE(connects[0].bytes.find(clientId), std::string::npos);
    EXPECT_NE(connects[1].bytes.find(clientId), std::string::npos);
    const auto willOf = [](const ScriptedServer::Packet& connect)
    { return connect.bytes.substr(connect.bytes.find("{\"online\":false")); };
    EXPECT_LT(willOf(connects[0]), willOf(connects[1]));
}

TEST_F(BridgeWireTest, noMoreMessagesAreUnderWayThanTheServerTakes)
{
    ScriptedServer& server = startServer(3);
    server.acknowledges = false;
    postMany(40);
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return server.underWay() == 3; }));
    acknowledgeUntilOnline();
    EXPECT_EQ(server.mostUnderWay(), 3U);
}

TEST_F(BridgeWireTest, atMostTwentyMessagesAreUnderWay)
{
    ScriptedServer& server = startServer();
    server.acknowledges = false;
    postMany(200);
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return server.underWay() == 20; }));
    acknowledgeUntilOnline();
    EXPECT_EQ(server.mostUnderWay(), 20U);
}

// Whether the broker has handled all posts, and has nothing left for any client.
static bool haveAllBeenSentEverything()
{
    RawRequester requester;
    if (requester.ask("Sync") != "SyncAck")
        return false;
    const std::string clients = requester.ask(R"({"getBrokerClients":"null"})");
    return clients.find(R"("queued":)") != std::string::npos &&
           !std::regex_search(clients, std::regex(R"("queued":[1-9])"));
}

TEST_F(BridgeWireTest, whileTheServerIsSilentTheBrokerIsFollowedAndOnlyTheLatestValueWaits)
{
    ScriptedServer& server = startServer();
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return isOnline(); }));
    server.acknowledges = false;
    const std::string large(1000, 'x');
    constexpr int changes = 30000; // more than the broker keeps for a subscriber that does not read
    for (int i = 0; i < changes; ++i)
        post("key" + std::to_string(i % 50), large + std::to_string(i));
    ASSERT_TRUE(server.waitFor([&] { return server.underWay() == 20; }));
    ASSERT_TRUE(eventually([] { return haveAllBeenSentEverything(); }));
    const std::size_t before = server.packets().size();
    server.acknowledges = true;
    server.acknowledgeAll();
    const std::string last = large + std::to_string(changes - 1);
    const auto isLast = [&](const ScriptedServer::Packet& packet) { return packet.payload == last; };
    ASSERT_TRUE(server.waitFor(
        [&] { return std::any_of(server.packets().begin(), server.packets().end(), isLast); }));
    EXPECT_LE(server.packets().size() - before, std::size_t{changes} / 10);
    EXPECT_EQ(mBridge->errors().find("The broker is gone"), std::string::npos);
}

TEST_F(BridgeWireTest, eventsThatWaitAreSentBehindTheValuesAtALimitedRate)
{
    ScriptedServer& server = startServer();
    server.kicksAfterAccepting = true;
    startBridge("insecure = true\nevent-rate = 1\n");
    ASSERT_TRUE(mBridge->waitForError("Following"));
    constexpr std::size_t events = 6;
    for (std::size_t i = 0; i < events; ++i)
        postEvent("bell", "rang");
    post("door", "open");
    RawRequester().ask("Sync");
    server.kicksAfterAccepting = false;
    ASSERT_TRUE(server.waitFor([&] { return isOnline(); }));
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(server.waitFor([&] { return countOf("fleet/truck/event/bell") == events; }));
    // One each second; half of that, as this process may have seen the beginning late.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(events) / 2);
    const auto packets = server.packetsOf(Kind::Publish);
    const auto at = [&](const std::string& topic)
    {
        return std::find_if(packets.begin(), packets.end(),
                            [&](const ScriptedServer::Packet& each) { return each.topic == topic; });
    };
    EXPECT_LT(at("fleet/truck/status/door"), at("fleet/truck/event/bell"));
}

TEST_F(BridgeWireTest, aServerThatKicksAfterAcceptingIsTriedAgain)
{
    ScriptedServer& server = startServer();
    server.kicksAfterAccepting = true;
    startBridge();
    ASSERT_TRUE(server.waitFor([&] { return server.connections() == 4; }));
    server.kicksAfterAccepting = false;
    EXPECT_TRUE(server.waitFor([&] { return isOnline(); }));
}

TEST_F(BridgeWireTest, onlineExpiresAndIsRepeatedBefore)
{
    ScriptedServer& server = startServer();
    startBridge("insecure = true\nonline-expiry = 3\n");
    ASSERT_TRUE(server.waitFor([&] { return countOf("fleet/truck/online") == 3; }));
    const std::string expiry("\x02\0\0\0\x03", 5); // the property, and seconds
    for (const ScriptedServer::Packet& packet : server.packetsOf(Kind::Publish))
    {
        if (isOnlineMessage(packet))
        {
            EXPECT_NE(packet.bytes.find(expiry), std::string::npos);
        }
    }
    EXPECT_EQ(server.connections(), 1U);
}

TEST_F(BridgeWireTest, aServerOfARowIsChosenByTheDevice)
{
    ScriptedServer& server = startServer();
    configure("insecure = true\n");
    std::string text = readFile(mFolder / "bridge.conf");
    text.replace(text.find("localhost"), 9, "127.0.0.{1..1}");
    writeFile(mFolder / "bridge.conf", text);
    mBridge.emplace(std::vector<std::string>{STATUSBRIDGE, "--config", mFolder / "bridge.conf"});
    EXPECT_TRUE(server.waitFor([&] { return isOnline(); }));
}

} // namespace
