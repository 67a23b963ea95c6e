// Documents and messages beyond the limits.

#include <algorithm>

#include "broker/base/Refusals.h"
#include "protocol/BrokerDocuments.h"
#include "tests/broker/attacks/Attack.h"
#include "tests/broker/attacks/UnderAttack.h"
#include "tests/support/WireFrames.h"

namespace
{

class HeavyPosts : public UnderAttack
{
protected:
    HeavyPosts() : UnderAttack({"--max-keys=1000"}) {}

    // A post that takes long: it has as many members as allowed, and each is refused individually.
    static std::string post()
    {
        std::string members = "\"\xc3\xa4\":\"\"";
        for (std::size_t number = 1; number < BrokerProtocol::mostMembers; ++number)
            members += ",\"" + std::to_string(number) + "\":\"\"";
        return R"({"postStatus":{)" + members + "}}";
    }

    const Attack::Peers peers{1, ZmtpPeer::postPort, "PUB", {ZmtpPeer::message(post())}, true};
};

} // namespace

TEST_F(SmallLimits, keysAreLimitedAndCountedAndUpdatesGoOn)
{
    for (int key = 0; key < 1000; ++key)
        poster.post(postOf("k" + std::to_string(key), "1"));
    EXPECT_EQ(requester.ask(R"({"getClientInfo":"null"})"), R"({"k0":"1","k1":"1","k2":"1"})");
    EXPECT_EQ(statistic("limit.keys"), 997U);
    EXPECT_EQ(statistic("stored.keys"), 3U);
    poster.post(postOf("k1", "2"));
    EXPECT_EQ(valueOf(requester, "k1"), reply("2"));
}

TEST_F(SmallLimits, oneThatKeepsMisbehavingCannotFloodTheLog)
{
    expectServing();
    for (int key = 0; key < 1000; ++key)
        poster.post(postOf("k" + std::to_string(key), "1"));
    expectServing();
    const std::string errors = broker.process().errors();
    EXPECT_LE(std::count(errors.begin(), errors.end(), '\n'), 3 + static_cast<int>(Refusals::linesPerWindow));
}

TEST_F(SmallLimits, aLongMessageIsRefusedInOneFrameAndInMany)
{
    const std::string text(1100, 'x');
    poster.post(text + text);
    poster.post(Frames{text, text});
    EXPECT_EQ(requester.ask(text + text), "{}");
    requester.send({text, text});
    EXPECT_EQ(requester.receive(), Frames{"{}"});
    EXPECT_EQ(statistic("limit.messageBytes"), 4U);
    EXPECT_TRUE(broker.process().waitForError("Post of more than 2048 bytes refused"));
    EXPECT_TRUE(broker.process().waitForError("Request of more than 2048 bytes refused"));
    expectServing();
}

TEST_F(SmallLimits, aFrameThatIsAnnouncedToBeHugeEndsItsConnection)
{
    constexpr uint64_t bytes = uint64_t{64} << 30;
    ZmtpPeer peer(ZmtpPeer::postPort);
    ASSERT_TRUE(peer.shakeHands());
    ASSERT_TRUE(peer.write(WireFrames::header(bytes, 0)));
    EXPECT_TRUE(peer.isClosed());
    EXPECT_EQ(statistic("limit.messageBytes"), 1U);
    expectServing();
}

TEST_F(SmallLimits, aMessageWithoutEndEndsItsConnection)
{
    const std::string frame = WireFrames::frame(std::string(255, 'x'), WireFrames::more);
    for (const uint16_t port : {ZmtpPeer::requestPort, ZmtpPeer::postPort, ZmtpPeer::notifyPort})
    {
        ZmtpPeer peer(port);
        ASSERT_TRUE(peer.shakeHands());
        EXPECT_TRUE(eventually([&] { return !peer.write(frame + frame + frame + frame); })) << port;
    }
    EXPECT_EQ(statistic("limit.messageBytes"), 3U);
    for (const std::string what :
         {"Post of more than 2048", "Request of more than 2048", "Subscription of more than 255"})
        EXPECT_TRUE(broker.process().waitForError(
            what + " bytes refused, its connection is closed because it does not end"));
    expectServing();
}

TEST_F(HeavyPosts, leaveItServing)
{
    Bystander bystander(requester);
    bystander.expectServed(1); // its key exists before there are too many
    Attack attack({peers});
    ASSERT_TRUE(reaches("limit.keys", 1));
    bystander.expectServed();
}

TEST_F(HeavyPosts, doNotDelayTheEnd)
{
    Attack attack({peers});
    ASSERT_TRUE(reaches("limit.keys", 1));
    RawRequester waiting(zmq::socket_type::dealer);
    waiting.send({"", "Sync"});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(broker.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, allowed(std::chrono::seconds(isSanitized ? 10 : 2)));
}
