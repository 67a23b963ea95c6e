// Crowds of connections, and connections that never complete the handshake.

#include <deque>

#include "tests/broker/attacks/UnderAttack.h"
#include "tests/support/WireFrames.h"

namespace
{

using namespace std::string_literals;

class Connections : public UnderAttack
{
};

std::string readyWithIdentity(const std::string& socketType, const std::string& identity)
{
    return WireFrames::frame("\5READY\x0bSocket-Type\0\0\0"s + static_cast<char>(socketType.size()) +
                                 socketType + "\x08Identity\0\0\0"s + static_cast<char>(identity.size()) +
                                 identity,
                             WireFrames::command);
}

} // namespace

// -------------------------------------------------------------------------------------- beyond the limit

TEST_F(SmallLimits, connectionsBeyondTheLimitAreRefusedAndTheOthersServed)
{
    uint64_t refused = 0;
    for (const uint16_t port : {ZmtpPeer::requestPort, ZmtpPeer::postPort, ZmtpPeer::notifyPort})
    {
        std::deque<ZmtpPeer> peers;
        for (int count = 0; count < 100; ++count)
            peers.emplace_back(port);
        EXPECT_TRUE(peers.front().isClosed()) << "a silent connection gives way to a new one";
        refused += 80;
        EXPECT_TRUE(reaches("limit.connections", refused));
        expectServing();
    }
    EXPECT_LE(statistic("descriptors.open"), 100U);
    EXPECT_TRUE(eventually([this] { return statistic("clients.requests") == 1; })) << "they are all gone";
    EXPECT_EQ(linesWith("18 of 20 connections to the request port are in use"), 1);
    RawRequester another;
    EXPECT_EQ(valueOf(another, "k"), reply(""));
}

TEST_F(SmallLimits, aNewClientFindsRoomAmongSilentConnections)
{
    std::deque<ZmtpPeer> peers;
    for (const uint16_t port : {ZmtpPeer::requestPort, ZmtpPeer::postPort, ZmtpPeer::notifyPort})
        for (int count = 0; count < 100; ++count)
            peers.emplace_back(port);
    TestProcess client({TESTCLIENT, "set", "k", "v"});
    EXPECT_EQ(client.waitForExit(), 0);
    expectServing();
}

TEST_F(SmallLimits, whoeverHasSpokenKeepsItsConnection)
{
    expectServing();
    std::deque<ZmtpPeer> peers;
    for (int count = 0; count < 30; ++count)
    {
        peers.emplace_back(ZmtpPeer::requestPort);
        peers.back().write(ZmtpPeer::greeting() + ZmtpPeer::ready("REQ"));
    }
    EXPECT_TRUE(peers.back().isClosed());
    expectServing();
}

TEST_F(SmallLimits, whoOpensAndClosesConnectionsCannotFloodTheLog)
{
    const auto begin = std::chrono::steady_clock::now();
    const uint64_t before = statistic("descriptors.open");
    for (int round = 0; round < 20; ++round)
    {
        std::deque<ZmtpPeer> peers;
        for (int count = 0; count < 18; ++count)
            peers.emplace_back(ZmtpPeer::postPort);
        ASSERT_TRUE(reaches("descriptors.open", before + 18));
        peers.clear();
        ASSERT_TRUE(eventually([&] { return statistic("descriptors.open") <= before; }));
    }
    // At most one line in ten seconds.
    const auto lines = linesWith("connections to the post port are in use");
    EXPECT_GE(lines, 1);
    EXPECT_LE(lines, 1 + (std::chrono::steady_clock::now() - begin) / std::chrono::seconds(10));
}

TEST_F(Connections, thousandsOfAllKindsLeaveItServing)
{
    const Frames speeches{"",
                          "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
                          std::string(200, '\0'),
                          std::string(64, '\xff'),
                          ZmtpPeer::greeting() + ZmtpPeer::ready("PAIR"),
                          ZmtpPeer::greeting() + ZmtpPeer::ready("SUB"),
                          ZmtpPeer::greeting() + ZmtpPeer::ready("PUB").substr(0, 6),
                          ZmtpPeer::greeting() + ZmtpPeer::ready("REQ") + "\7\xff garbage"};
    std::deque<ZmtpPeer> peers;
    for (int round = 0; round < 375; ++round)
        for (const std::string& speech : speeches)
        {
            peers.emplace_back(static_cast<uint16_t>(ZmtpPeer::requestPort + peers.size() % 3));
            peers.back().write(speech);
            if (peers.size() % 500 == 0)
                expectServing();
        }
    expectServing();
    peers.clear();
    EXPECT_TRUE(eventually([this] { return statistic("descriptors.open") < 60; }));
    expectServing();
}

// -------------------------------------------------------------------------------------------- handshakes

TEST_F(Connections, whoNeverSpeaksIsDisconnected)
{
    ZmtpPeer silent(ZmtpPeer::requestPort);
    EXPECT_TRUE(silent.isClosed());
}

TEST_F(Connections, whoFailsInItsHandshakeIsNotCounted)
{
    for (int count = 0; count < 20; ++count)
    {
        ZmtpPeer peer(ZmtpPeer::postPort);
        ASSERT_TRUE(peer.write(ZmtpPeer::greeting() + WireFrames::header(uint64_t{1} << 40, 0)));
        EXPECT_TRUE(peer.isClosed());
    }
    RawPoster another;
    EXPECT_EQ(statistic("clients.posts"), 2U);
    EXPECT_EQ(statistic("clients.requests"), 1U);
}

TEST_F(Connections, whoNeverCompletesItsHandshakeIsNotCountedForAnother)
{
    const std::string opening = ZmtpPeer::openingOf(ZmtpPeer::requestPort);
    ZmtpPeer honest(ZmtpPeer::requestPort);
    ASSERT_TRUE(honest.write(ZmtpPeer::greeting()));
    ASSERT_EQ(honest.read(opening.size()), opening);
    {
        ZmtpPeer unfinished(ZmtpPeer::requestPort);
        ASSERT_TRUE(unfinished.write(ZmtpPeer::greeting() + "\4\xc8\5READY" + std::string(60, '\0')));
        ASSERT_EQ(unfinished.read(opening.size()), opening);
        ASSERT_TRUE(honest.write(ZmtpPeer::ready("REQ")));
        EXPECT_TRUE(eventually([this] { return statistic("clients.requests") == 2; }));
    }
    RawRequester later;
    EXPECT_EQ(valueOf(later, "k"), reply(""));
    EXPECT_TRUE(eventually([this] { return statistic("clients.requests") == 3; }));
}

// An answer goes to the connection that asked, whatever identity it claims.
TEST_F(Connections, theIdentitiesThatPeersClaimMeanNothing)
{
    for (const std::string& identity : {"same"s, "\0\0\0\0\1"s, std::string(255, 'x'), ""s})
    {
        std::deque<ZmtpPeer> peers;
        for (int number = 0; number < 20; ++number)
        {
            poster.post(postOf("k" + std::to_string(number), std::to_string(number)));
            peers.emplace_back(ZmtpPeer::requestPort);
            const std::string opening = ZmtpPeer::openingOf(ZmtpPeer::requestPort);
            ASSERT_TRUE(peers.back().write(ZmtpPeer::greeting() + readyWithIdentity("REQ", identity)));
            ASSERT_EQ(peers.back().read(opening.size()), opening);
        }
        expectServing();
        for (std::size_t number = 0; number < peers.size(); ++number)
            EXPECT_TRUE(peers[number].write(
                ZmtpPeer::request(R"({"getClientInfoValue":"k)" + std::to_string(number) + "\"}")));
        for (std::size_t number = 0; number < peers.size(); ++number)
        {
            EXPECT_EQ(peers[number].receiveText(), reply(std::to_string(number)));
            peers[number].shutDown();
        }
        expectServing();
    }
}

// --------------------------------------------------------------------------------------------- strangers

// A web page can make a browser send a request of the page's choice to a local port.
TEST_F(Connections, whateverIsNotTheProtocolIsClosedAndNothingInItCounts)
{
    const std::string post = postOf("k", "from a stranger");
    const std::string oldFrame = static_cast<char>(post.size() + 1) + "\0"s + post;
    const std::string signature = "\xff\0\0\0\0\0\0\0\0\x7f"s;
    const auto greetingWith = [](std::size_t at, const std::string& bytes)
    { return ZmtpPeer::greeting().replace(at, bytes.size(), bytes); };
    const std::string rest = ZmtpPeer::ready("PUB") + ZmtpPeer::message(post);
    const std::vector<std::string> speeches{
        "POST / HTTP/1.1\r\nHost: 127.0.0.1:5556\r\nContent-Type: text/plain\r\n\r\n" + oldFrame,
        "POST / HTTP/1.1\r\n\r\n" + ZmtpPeer::greeting() + rest,
        "\1\0"s + oldFrame,                                      // ZMTP 1.0
        signature + "\0"s + "\1\0\0"s + ZmtpPeer::message(post), // the same, as newer peers send it
        signature + "\1"s + "\1\0\0"s + ZmtpPeer::message(post), // ZMTP 2.0
        signature + "\2"s + "\1\0\0"s + ZmtpPeer::message(post), // an unknown version
        "\x16\3\1\2\0\1\0\1\xfc\3\3"s + std::string(200, 'x'),   // TLS
        greetingWith(10, "\2") + rest,
        greetingWith(12, "PLAIN") + rest,
        greetingWith(0, "\xfe") + rest,
        greetingWith(9, "\x7e") + rest,
    };
    const uint64_t posts = statistic("posts");
    for (const uint16_t port : {ZmtpPeer::requestPort, ZmtpPeer::postPort, ZmtpPeer::notifyPort})
    {
        for (const std::string& speech : speeches)
        {
            ZmtpPeer peer(port);
            peer.write(speech);
            EXPECT_TRUE(peer.isClosed()) << port << ": " << speech;
        }
    }
    EXPECT_EQ(statistic("posts"), posts);
    EXPECT_EQ(valueOf(requester, "k"), reply(""));
    expectServing();
}

TEST_F(Connections, aStrangerIsClosedAtItsFirstByteNotWhenItsTimeIsOver)
{
    for (const uint16_t port : {ZmtpPeer::requestPort, ZmtpPeer::postPort, ZmtpPeer::notifyPort})
    {
        ZmtpPeer silent(port);
        ZmtpPeer stranger(port);
        stranger.write("P");
        EXPECT_TRUE(stranger.isClosed());
        EXPECT_FALSE(silent.isClosedNow()) << "it came first, so its time ends first";
    }
}
