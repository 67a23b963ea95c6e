// Another user tries everything to write values that the policy reserves for us.

#include <atomic>
#include <future>
#include <sys/socket.h>

#include "tests/broker/PolicedBroker.h"
#include "tests/support/AsUser.h"
#include "tests/support/Loopback.h"

namespace
{

constexpr uid_t attacker = 12345;

// Connects from a fixed port, so that the port of an ended connection is reused at once.
class ChosenPort
{
public:
    ChosenPort(uint16_t local, uint16_t remote)
    {
        const int on = 1;
        setsockopt(mSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        const linger none{1, 0}; // avoids TIME_WAIT
        setsockopt(mSocket, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
        const sockaddr_in own = loopback(local);
        const sockaddr_in broker = loopback(remote);
        mIsConnected = bind(mSocket, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) == 0 &&
                       connect(mSocket, reinterpret_cast<const sockaddr*>(&broker), sizeof(broker)) == 0;
    }
    ~ChosenPort() { close(mSocket); }

    ChosenPort(const ChosenPort&) = delete;
    ChosenPort& operator=(const ChosenPort&) = delete;

    bool isConnected() const { return mIsConnected; }
    void write(const std::string& bytes) const
    {
        static_cast<void>(send(mSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

private:
    int mSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool mIsConnected = false;
};

class PolicyAttack : public PolicedBroker
{
protected:
    void SetUp() override
    {
        // May be skipped: the kernel lets only root become another user. The build server tests as root, so
        // these tests always run there. Elsewhere DenyingTest tests that denied posts are refused, and
        // GuardTest that users are told apart.
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can become another user";
        start("default = \"deny\"\n[[rule]]\nuser = 0\nallow = \"all\"\n"
              "[[rule]]\nuser = 12345\nallow = \"post\"\nkeys = \"web.*\"\n");
        post(postOf("ours", "1"));
    }

    // The handshake and the posts, sent together.
    static std::string session(const std::string& posts)
    {
        return ZmtpPeer::greeting() + ZmtpPeer::ready("PUB") + posts;
    }

    // Attacks while an allowed client is served, which must see only its own posts.
    template <class Attack>
    void whileServed(Attack attack)
    {
        std::atomic<bool> isOver{false};
        auto attacking = std::async(std::launch::async,
                                    [&]
                                    {
                                        EXPECT_TRUE(asUser(attacker, attack));
                                        isOver = true;
                                    });
        int number = 0;
        while (!isOver)
        {
            const std::string value = std::to_string(++number);
            ASSERT_TRUE(posting->write(ZmtpPeer::message(postOf("ours", value))));
            EXPECT_TRUE(eventually([&] { return all() == R"({"ours":")" + value + "\"}"; })) << all();
        }
        attacking.get();
        EXPECT_GT(number, 0);
    }

    // The broker has met at least half of the attacker's connections. It denied their posts, or refused them
    // because they had ended before their owner was known.
    bool hasMetHalfOf(uint64_t connections)
    {
        return eventually(
            [&]
            { return statistic("policy.denied") + statistic("policy.unknownOwners") >= connections / 2; });
    }

    static std::string forbidden()
    {
        return ZmtpPeer::message(postOf("ours", "theirs")) + ZmtpPeer::message(postOf("other", "theirs")) +
               ZmtpPeer::message(R"({"resetStatus":["ours"]})");
    }
};

} // namespace

TEST_F(PolicyAttack, aHundredThousandPostsChangeNothing)
{
    constexpr int posts = 100000;
    whileServed(
        []
        {
            ZmtpPeer peer(ZmtpPeer::postPort);
            ASSERT_TRUE(peer.shakeHands());
            std::string bytes;
            for (int i = 0; i < 100; ++i)
                bytes += ZmtpPeer::message(postOf("ours", "theirs"));
            for (int i = 0; i < posts / 100; ++i)
                ASSERT_TRUE(peer.write(bytes));
            ZmtpPeer counting(ZmtpPeer::requestPort);
            ASSERT_TRUE(counting.shakeHands());
            EXPECT_TRUE(eventually([&] { return statistic(counting, "policy.denied") == posts; }));
        });
    EXPECT_EQ(statistic("stored.keys"), 1U);
}

TEST_F(PolicyAttack, whatIsSentAndClosedAtOnceChangesNothing)
{
    whileServed(
        []
        {
            for (int i = 0; i < 2000; ++i)
            {
                const ChosenPort gone(0, ZmtpPeer::postPort);
                gone.write(session(forbidden()));
            }
        });
    EXPECT_TRUE(hasMetHalfOf(2000));
    EXPECT_EQ(statistic("stored.keys"), 1U);
}

// The broker must not mistake one connection for the other.
TEST_F(PolicyAttack, thePortOfAnAllowedConnectionBringsNoRights)
{
    constexpr uint16_t port = 30555;
    int connected = 0;
    for (int i = 0; i < 300; ++i)
    {
        {
            const ChosenPort mine(port, ZmtpPeer::postPort);
            mine.write(session(ZmtpPeer::message(postOf("mine", "1"))));
        }
        ASSERT_TRUE(asUser(attacker,
                           [&]
                           {
                               const ChosenPort theirs(port, ZmtpPeer::postPort);
                               theirs.write(session(forbidden()));
                               connected += theirs.isConnected() ? 1 : 0;
                           }));
    }
    EXPECT_GT(connected, 200);
    const uint64_t before = statistic("posts");
    post(postOf("last", "1"));
    EXPECT_GT(statistic("posts"), before);
    const std::string values = all();
    EXPECT_EQ(values.find("theirs"), std::string::npos) << values;
    EXPECT_NE(values.find(R"("ours":"1")"), std::string::npos) << values;
}

TEST_F(PolicyAttack, aFloodOfConnectionsChangesNothing)
{
    whileServed(
        []
        {
            for (int round = 0; round < 20; ++round)
            {
                std::vector<std::unique_ptr<ChosenPort>> peers;
                for (int i = 0; i < 100; ++i)
                {
                    peers.push_back(std::make_unique<ChosenPort>(0, ZmtpPeer::postPort));
                    peers.back()->write(session(forbidden()));
                }
            }
        });
    EXPECT_TRUE(hasMetHalfOf(2000));
    EXPECT_EQ(statistic("stored.keys"), 1U);
}

TEST_F(PolicyAttack, whatItMayWriteIsTaken)
{
    ASSERT_TRUE(asUser(attacker,
                       []
                       {
                           ZmtpPeer peer(ZmtpPeer::postPort);
                           ASSERT_TRUE(peer.shakeHands());
                           ASSERT_TRUE(peer.write(forbidden() + ZmtpPeer::message(postOf("web.a", "1"))));
                           EXPECT_TRUE(peer.readFrame()); // it is not closed before everything is read
                       }));
    EXPECT_TRUE(eventually([&] { return all() == R"({"ours":"1","web.a":"1"})"; }));
}

TEST_F(PolicyAttack, itMayNotAskWhatThePolicySays)
{
    ASSERT_TRUE(asUser(attacker,
                       []
                       {
                           ZmtpPeer asker(ZmtpPeer::requestPort);
                           ASSERT_TRUE(asker.shakeHands());
                           EXPECT_EQ(asker.ask(R"({"getPolicyDecision":["0","post","a"]})"),
                                     R"({"error":"only root and the broker's user may ask"})");
                       }));
}

// So it has received nothing from the broker.
TEST_F(PolicyAttack, aConnectionThatIsRefusedIsNotGreeted)
{
    reload("[[rule]]\ngroup = 5\ndeny = \"post\"\n"); // the groups of such a connection are unknown
    ASSERT_TRUE(isInLog("Applied new limits, log level and policy"));
    ASSERT_TRUE(asUser(attacker,
                       []
                       {
                           ZmtpPeer asker(ZmtpPeer::requestPort);
                           EXPECT_EQ(asker.read(1), "");
                       }));
    EXPECT_TRUE(isInLog("its groups are unknown"));
}

TEST_F(PolicyAttack, itIsToldNothing)
{
    ASSERT_TRUE(asUser(attacker,
                       [&]
                       {
                           ZmtpPeer asker(ZmtpPeer::requestPort);
                           ZmtpPeer listener(ZmtpPeer::notifyPort);
                           ASSERT_TRUE(asker.shakeHands());
                           ASSERT_TRUE(listener.shakeHands());
                           ASSERT_TRUE(listener.write(ZmtpPeer::subscribe("")));
                           EXPECT_EQ(asker.ask(R"({"getClientInfo":"null"})"), "{}");
                           EXPECT_EQ(asker.ask(R"({"getClientInfoValue":"ours"})"), R"({"statusValue":""})");
                           for (int i = 0; i < 100; ++i)
                               post(postOf("ours", std::to_string(i + 2)));
                           EXPECT_EQ(listener.receiveText(std::chrono::milliseconds(50)), std::nullopt);
                       }));
}
