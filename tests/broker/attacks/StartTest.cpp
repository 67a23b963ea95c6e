// Starts of clients beside peers that keep the broker waiting.

#include <algorithm>
#include <deque>

#include "tests/broker/attacks/UnderAttack.h"

namespace
{

using std::chrono::milliseconds;
using Duration = std::chrono::steady_clock::duration;

// For how long a start waits for a post connection that does not show its subscription.
constexpr milliseconds startWait{50};

class Starts : public UnderAttack
{
protected:
    // How long the first "Sync" of a new client takes, which has a post connection.
    Duration start()
    {
        mPosters.emplace_back();
        RawRequester starting;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(starting.ask("Sync"), "SyncAck");
        const Duration time = std::chrono::steady_clock::now() - begin;
        mRequesters.push_back(std::move(starting));
        return time;
    }

    // On a busy machine, some take longer than they should.
    Duration shortestStartOf(int count)
    {
        Duration shortest = start();
        while (--count > 0)
            shortest = std::min(shortest, start());
        return shortest;
    }

    // Handshakes, and answers no PING.
    std::deque<ZmtpPeer> silentPeers(uint16_t port, int count)
    {
        std::deque<ZmtpPeer> peers;
        for (int number = 0; number < count; ++number)
        {
            peers.emplace_back(port);
            EXPECT_TRUE(peers.back().shakeHands());
        }
        return peers;
    }

private:
    std::deque<RawPoster> mPosters;
    std::deque<RawRequester> mRequesters;
};

} // namespace

// ------------------------------------------------------------------------------------------- silent peers

TEST_F(Starts, areDelayedOnlyOnceByAPostConnectionThatNeverAnswers)
{
    const auto silent = silentPeers(ZmtpPeer::postPort, 1);
    EXPECT_GE(start(), startWait);
    EXPECT_LT(shortestStartOf(20), startWait);
}

TEST_F(Starts, areDelayedByAHundredSuchConnectionsNoLongerThanByOne)
{
    const auto silent = silentPeers(ZmtpPeer::postPort, 100);
    const Duration first = start();
    EXPECT_GE(first, startWait);
    EXPECT_LT(first, allowed(50 * startWait)) << "half of what waiting for one after the other takes";
    EXPECT_LT(shortestStartOf(20), startWait);
}

TEST_F(Starts, areNotDelayedByIdleRequestConnections)
{
    const auto idle = silentPeers(ZmtpPeer::requestPort, 5);
    EXPECT_LT(shortestStartOf(5), startWait);
}

TEST_F(Starts, areDelayedOnlyOnceByClientsWithoutAPostConnection)
{
    auto asking = silentPeers(ZmtpPeer::requestPort, 10);
    for (ZmtpPeer& peer : asking)
        ASSERT_EQ(peer.ask(R"({"getClientInfoValue":"k"})"), reply(""));
    EXPECT_GE(start(), startWait);
    EXPECT_LT(shortestStartOf(5), startWait);
}

// ------------------------------------------------------------------------------------------------- crowds

TEST_F(Starts, ofAHundredClientsAtOnceLoseNoPost)
{
    constexpr int count = 100;
    std::vector<std::unique_ptr<TestProcess>> clients;
    for (int number = 0; number < count; ++number)
        clients.push_back(std::make_unique<TestProcess>(
            Frames{TESTCLIENT, "set", "k" + std::to_string(number), std::to_string(number)}));
    for (const auto& client : clients)
        EXPECT_EQ(client->waitForExit(), 0);
    for (int number = 0; number < count; ++number)
        EXPECT_EQ(valueOf(requester, "k" + std::to_string(number)), reply(std::to_string(number)));
}

TEST_F(Starts, goOnBesideOneThatSyncsOverAndOver)
{
    RawRequester flood(zmq::socket_type::dealer);
    constexpr int count = 10500;
    for (int number = 0; number < count; ++number)
        flood.send({"", "Sync"});
    EXPECT_TRUE(reaches("requests.Sync", count));
    EXPECT_LT(shortestStartOf(5), startWait);
}
