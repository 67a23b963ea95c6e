// Starts of clients next to peers that make the broker wait.

#include <algorithm>
#include <deque>

#include "tests/broker/attacks/UnderAttack.h"

namespace
{

using std::chrono::milliseconds;
using Duration = std::chrono::steady_clock::duration;

// A start waits this long for a post connection whose subscription is missing, or that does not arrive. In
// its first two seconds, the broker waits longer for missing connections.
constexpr milliseconds startWait{50};
constexpr milliseconds youngStartWait{500};
constexpr uint64_t youth = 2;

// Extra time that a start may take on a busy machine.
constexpr milliseconds slack{50};

// A broker and its clients.
class StartedBroker
{
public:
    bool reaches(const std::string& statistic, uint64_t number)
    {
        return eventually([&] { return brokerStatistic(requester, statistic) >= number; });
    }

    // The time of the first "Sync" of a new client with a post connection.
    Duration start()
    {
        mPosters.emplace_back();
        RawRequester newcomer;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(newcomer.ask("Sync"), "SyncAck");
        const Duration time = std::chrono::steady_clock::now() - begin;
        mRequesters.push_back(std::move(newcomer));
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

    BrokerProcess process;
    RawPoster poster;
    RawRequester requester;

private:
    std::deque<RawPoster> mPosters;
    std::deque<RawRequester> mRequesters;
};

using Peers = std::deque<ZmtpPeer>;

// They complete the handshake, and answer no PING.
Peers silentPeers(uint16_t port, int count)
{
    Peers peers;
    for (int number = 0; number < count; ++number)
    {
        peers.emplace_back(port);
        EXPECT_TRUE(peers.back().shakeHands());
    }
    return peers;
}

Peers silentPosters()
{
    return silentPeers(ZmtpPeer::postPort, 100);
}

// They send requests, and have no post connection.
Peers clientsThatOnlyAsk()
{
    Peers peers = silentPeers(ZmtpPeer::requestPort, 10);
    for (ZmtpPeer& peer : peers)
        EXPECT_EQ(peer.ask(R"({"getClientInfoValue":"k"})"), reply(""));
    return peers;
}

// The extra time of the first start next to such peers, and the shortest of the following starts.
struct Delays
{
    Duration first;
    Duration next;
};

class Starts : public testing::Test
{
protected:
    // Each broker is delayed once, and longer on a busy machine. So the least delay of a few brokers counts.
    template <class MakePeers>
    void expectDelayedOnce(uint64_t age, milliseconds wait, MakePeers makePeers)
    {
        constexpr int brokers = 3;
        const Duration most = allowed(wait + slack);
        Delays least{Duration::max(), Duration::max()};
        for (int count = 0; count < brokers && (least.first >= most || least.next >= startWait); ++count)
        {
            const Delays delays = delaysOfABroker(age, makePeers);
            least = {std::min(least.first, delays.first), std::min(least.next, delays.next)};
        }
        EXPECT_TRUE(least.first < most && least.next < startWait)
            << least.first.count() << " ns, then " << least.next.count();
    }

private:
    // Measures a broker that has run for this many seconds.
    template <class MakePeers>
    static Delays delaysOfABroker(uint64_t age, MakePeers makePeers)
    {
        StartedBroker broker;
        const Duration usual = broker.shortestStartOf(5);
        EXPECT_TRUE(broker.reaches("uptime.seconds", age));
        const Peers peers = makePeers();
        const Duration first = broker.start();
        EXPECT_GE(first, startWait) << "the broker did not wait";
        return {first - usual, broker.shortestStartOf(20)};
    }
};

} // namespace

// ------------------------------------------------------------------------------------------- silent peers

TEST_F(Starts, areDelayedOnlyOnceByAPostConnectionThatNeverAnswers)
{
    StartedBroker broker;
    const auto silent = silentPeers(ZmtpPeer::postPort, 1);
    EXPECT_GE(broker.start(), startWait);
    EXPECT_LT(broker.shortestStartOf(20), startWait);
}

TEST_F(Starts, areNotDelayedByIdleRequestConnections)
{
    StartedBroker broker;
    const auto idle = silentPeers(ZmtpPeer::requestPort, 5);
    EXPECT_LT(broker.shortestStartOf(5), startWait);
}

TEST_F(Starts, areDelayedByAHundredSuchConnectionsNoLongerThanByOne)
{
    expectDelayedOnce(youth, startWait, silentPosters);
}

TEST_F(Starts, areDelayedOnlyOnceByClientsWithoutAPostConnection)
{
    expectDelayedOnce(youth, startWait, clientsThatOnlyAsk);
}

TEST_F(Starts, areDelayedALittleLongerInTheBrokersFirstSeconds)
{
    expectDelayedOnce(0, youngStartWait, silentPosters);
    expectDelayedOnce(0, youngStartWait, clientsThatOnlyAsk);
}

// ------------------------------------------------------------------------------------------------- crowds

TEST_F(Starts, ofAHundredClientsAtOnceLoseNoPost)
{
    StartedBroker broker;
    constexpr int count = isEmulated ? 20 : 100; // more emulated ones answer too late for the broker
    std::vector<std::unique_ptr<TestProcess>> clients;
    for (int number = 0; number < count; ++number)
        clients.push_back(std::make_unique<TestProcess>(
            Frames{TESTCLIENT, "set", "k" + std::to_string(number), std::to_string(number)}));
    for (const auto& client : clients)
        EXPECT_EQ(client->waitForExit(), 0);
    for (int number = 0; number < count; ++number)
        EXPECT_EQ(valueOf(broker.requester, "k" + std::to_string(number)), reply(std::to_string(number)));
}

TEST_F(Starts, goOnBesideOneThatSyncsOverAndOver)
{
    StartedBroker broker;
    RawRequester flood(zmq::socket_type::dealer);
    constexpr int count = 10500;
    for (int number = 0; number < count; ++number)
        flood.send({"", "Sync"});
    EXPECT_TRUE(broker.reaches("requests.Sync", count));
    EXPECT_LT(broker.shortestStartOf(5), startWait);
}
