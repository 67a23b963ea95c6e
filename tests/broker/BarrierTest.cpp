// Which peers the real broker pings before it confirms a "Sync".

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "tests/broker/Messages.h"
#include "tests/support/AsUser.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/ZmtpPeer.h"

using namespace std::string_literals;

namespace
{

// How long a test watches that nothing comes.
constexpr std::chrono::milliseconds quiet{200};

// A connection that makes posts.
class Poster : public ZmtpPeer
{
public:
    Poster() : ZmtpPeer(postPort)
    {
        EXPECT_TRUE(shakeHands());
        EXPECT_EQ(read(3), "\0\1\1"s) << "the subscription";
        EXPECT_TRUE(readFrame()) << "the PING behind it";
        EXPECT_TRUE(write(pong("subscribed")));
    }

    // The context of the next PING; empty if none comes.
    std::string awaitPing()
    {
        const auto frame = readFrame();
        if (!frame || frame->flags != WireFrames::command || frame->body.substr(0, 7) != "\4PING\0\0"s)
            return "";
        return frame->body.substr(7);
    }
};

class BarrierTest : public testing::Test
{
protected:
    void SetUp() override { requester.ask("Sync"); } // the first Sync is special

    void expectAnswer() { EXPECT_EQ(requester.receive(), std::vector<std::string>{"SyncAck"}); }

    BrokerProcess broker;
    RawRequester requester;
};

} // namespace

// More of its earlier posts may be under way.
TEST_F(BarrierTest, aSyncPingsPostersThatPostedAndTheNumberInItIsTheirs)
{
    Poster poster;
    ASSERT_TRUE(poster.write(ZmtpPeer::message(postOf("k", "v"))));
    ASSERT_TRUE(eventually([&] { return valueOf(requester, "k") == reply("v"); }));
    requester.send({"Sync"});
    const std::string context = poster.awaitPing();
    ASSERT_NE(context, "");
    EXPECT_LE(context.size(), 16U) << "the peer cuts longer contexts";
    ASSERT_FALSE(requester.receive(quiet)) << "the answer waits for PONG";
    ASSERT_TRUE(poster.write(ZmtpPeer::pong(context)));
    expectAnswer();
    EXPECT_EQ(poster.read(1, quiet), "");
}

// The kernel may deliver the "Sync" before a post that was written earlier.
TEST_F(BarrierTest, aSyncPingsThePosterOfItsClientThoughNothingHasCome)
{
    Poster poster;
    requester.send({"Sync"});
    const std::string context = poster.awaitPing();
    ASSERT_NE(context, "");
    ASSERT_TRUE(poster.write(ZmtpPeer::message(postOf("k", "v")) + ZmtpPeer::pong(context)));
    expectAnswer();
    EXPECT_EQ(valueOf(requester, "k"), reply("v"));
}

// The broker waits 100 ms, in which a busy machine may not run this process at all.
TEST_F(BarrierTest, aSyncWaitsForTheAnswerOfItsPoster)
{
    Poster poster;
    EXPECT_TRUE(eventually(
        [&]
        {
            requester.send({"Sync"});
            const std::string context = poster.awaitPing();
            const bool hasWaited = !requester.receive(std::chrono::milliseconds(5));
            EXPECT_TRUE(poster.write(ZmtpPeer::pong(context)));
            if (hasWaited)
                expectAnswer();
            return hasWaited;
        }));
}

// May be skipped: the kernel lets only root become another user. The build server tests as root, so it always
// runs there.
TEST_F(BarrierTest, aSyncDoesNotPingPostersOfOtherUsersFromWhichNothingHasCome)
{
    std::unique_ptr<Poster> other;
    if (!asUser(12345, [&] { other = std::make_unique<Poster>(); }))
        GTEST_SKIP() << "this process may not be another user";
    requester.send({"Sync"});
    expectAnswer();
    EXPECT_EQ(other->read(1, quiet), "");
}

TEST_F(BarrierTest, aQueryDoesNotPingPostersFromWhichNothingHasCome)
{
    Poster poster;
    EXPECT_EQ(valueOf(requester, "k"), reply(""));
    EXPECT_EQ(poster.read(1, quiet), "");
}

// A client that is stopped delays other clients of its service only once.
TEST_F(BarrierTest, aPosterThatDoesNotAnswerIsNotPingedForEverySync)
{
    Poster silent;
    for (int count = 0; count < 5; ++count)
    {
        requester.send({"Sync"});
        expectAnswer();
    }
    EXPECT_NE(silent.awaitPing(), "");
    EXPECT_EQ(silent.read(1, quiet), "");
}
