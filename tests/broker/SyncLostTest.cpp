// A "Sync" does not confirm lost posts: handwritten peers with the real broker.

#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

// The frames of a post without the last.
std::string unfinishedPost(std::size_t bytes)
{
    std::string post = "{\"postStatus\":{\"k\":\"" + std::string(bytes, 'v');
    std::string frames;
    for (std::size_t at = 0; at < post.size(); at += 200)
        frames += WireFrames::frame(post.substr(at, 200), true);
    return frames;
}

const std::vector<std::string> littleMemory{"--max-memory=4M", "--max-notify-bytes=1M",
                                            "--max-message-bytes=700K"};

std::unique_ptr<ZmtpPeer> posterOf(const std::string& bytes)
{
    auto poster = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort);
    EXPECT_TRUE(poster->shakeHands());
    poster->write(bytes);
    return poster;
}

} // namespace

TEST(SyncLostTest, oneWhoseFirstWordIsAQueryIsNoNewClient)
{
    BrokerProcess broker;
    RawRequester requester;
    valueOf(requester, "k");
    EXPECT_EQ(requester.ask("Sync"), "SyncLost") << "its posts may have died with an earlier broker";
    EXPECT_EQ(requester.ask("Sync"), "SyncAck") << "the loss is reported only once";
}

TEST(SyncLostTest, aNewClientWhoseSyncIsReadLateIsNotTakenForAnOldOne)
{
    BrokerProcess broker;
    ZmtpPeer peer(ZmtpPeer::requestPort);
    ASSERT_TRUE(peer.shakeHands());
    for (const std::string context : {"opened", "handled"})
    {
        ASSERT_TRUE(peer.write(ZmtpPeer::ping(context)));
        ASSERT_EQ(peer.read(ZmtpPeer::pong(context).size()), ZmtpPeer::pong(context));
    }
    broker.process().suspend();
    ASSERT_TRUE(peer.write(ZmtpPeer::request("Sync")));
    // Real time must pass, and nothing can be awaited: the broker must read the Sync when it is older than
    // the silence of new clients.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    broker.process().signal(SIGCONT);
    EXPECT_EQ(peer.receiveText(), "SyncAck");
}

TEST(SyncLostTest, eachClientIsToldOnceThatAPostConnectionWasClosedForWantOfMemory)
{
    BrokerProcess broker(littleMemory);
    RawRequester one;
    ASSERT_EQ(one.ask("Sync"), "SyncAck");
    RawRequester other; // speaks at once, as new clients do
    ASSERT_EQ(other.ask("Sync"), "SyncAck");
    std::vector<std::unique_ptr<ZmtpPeer>> posters;
    const auto isOneClosed = [&] { return brokerStatistic(one, "limit.memory") != 0; };
    while (posters.size() < 20 && !isOneClosed())
        posters.push_back(posterOf(unfinishedPost(600000)));
    ASSERT_TRUE(eventually(isOneClosed));
    posters.clear();
    ASSERT_TRUE(eventually([&] { return brokerStatistic(one, "clients.posts") == 0; }));
    EXPECT_EQ(one.ask("Sync"), "SyncLost");
    EXPECT_EQ(one.ask("Sync"), "SyncAck");
    EXPECT_EQ(other.ask("Sync"), "SyncLost");
    EXPECT_EQ(other.ask("Sync"), "SyncAck");
    EXPECT_EQ(RawRequester().ask("Sync"), "SyncAck") << "a new client has lost nothing";
}

TEST(SyncLostTest, eachClientIsToldOnceThatAPostConnectionWasClosedBecauseAMessageDidNotEnd)
{
    constexpr std::size_t endless = std::size_t{16} * 1024 * 1024;
    BrokerProcess broker;
    RawRequester one;
    ASSERT_EQ(one.ask("Sync"), "SyncAck");
    const auto poster = posterOf(WireFrames::header(endless, WireFrames::isLong) + "a post lies behind it");
    ASSERT_TRUE(eventually([&] { return brokerStatistic(one, "limit.messageBytes") != 0; }));
    EXPECT_EQ(one.ask("Sync"), "SyncLost");
    EXPECT_EQ(one.ask("Sync"), "SyncAck");
}

TEST(SyncLostTest, stoppedPeersThatHoldLittleEachGiveWayBeforeAPosterOfALargeMessage)
{
    BrokerProcess broker(littleMemory);
    RawRequester requester;
    ASSERT_EQ(requester.ask("Sync"), "SyncAck");
    std::vector<std::unique_ptr<ZmtpPeer>> stopped;
    const auto held = [&] { return brokerStatistic(requester, "memory.connections"); };
    while (stopped.size() < 100 && held() < std::size_t{3400} * 1024)
        stopped.push_back(posterOf(unfinishedPost(40000)));
    // Real time must pass, and nothing can be awaited: connections without traffic for a while count as
    // stopped.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    const auto poster = posterOf(unfinishedPost(600000));
    ASSERT_TRUE(eventually([&] { return brokerStatistic(requester, "limit.memory") != 0; }));
    EXPECT_FALSE(poster->isClosedNow());
}
