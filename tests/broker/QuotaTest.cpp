// The real broker keeps users within their shares, with two users.

#include <gtest/gtest.h>
#include <memory>

#include "tests/broker/PolicedBroker.h"
#include "tests/support/AsUser.h"

namespace
{

constexpr uid_t greedy = 12345;

class QuotaTest : public PolicedBroker
{
protected:
    void SetUp() override
    {
        // May be skipped: the kernel lets only root become another user. The build server tests as root, so
        // these tests always run there. Elsewhere QuotasTest and SharesTest try each limit with made-up
        // users.
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can become another user";
    }

    static std::string quota(const std::string& limits)
    {
        return "[[quota]]\nuser = " + std::to_string(greedy) + "\n" + limits + "\n";
    }

    static std::unique_ptr<ZmtpPeer> peerOf(uid_t user, uint16_t port)
    {
        std::unique_ptr<ZmtpPeer> peer;
        asUser(user, [&] { peer = std::make_unique<ZmtpPeer>(port); });
        return peer;
    }

    // A post connection of the other user.
    std::unique_ptr<ZmtpPeer> poster()
    {
        auto peer = peerOf(greedy, ZmtpPeer::postPort);
        EXPECT_TRUE(peer->shakeHands());
        return peer;
    }

    static std::string postOfMany(const std::string& prefix, int count)
    {
        std::string values;
        for (int number = 0; number < count; ++number)
            values += (number == 0 ? "\"" : ",\"") + prefix + std::to_string(number) + R"(":"1")";
        return R"({"postStatus":{)" + values + "}}";
    }
};

} // namespace

TEST_F(QuotaTest, oneThatFillsTheKeySpaceFillsOnlyItsShare)
{
    start(quota("keys = 10"));
    auto other = poster();
    ASSERT_TRUE(other->write(ZmtpPeer::message(postOfMany("k", 9999))));
    ASSERT_TRUE(eventually([&] { return statistic("policy.quota") == 9989; }));
    EXPECT_EQ(statistic("stored.keys"), 10U);
    post(postOfMany("mine", 1000));
    EXPECT_EQ(statistic("stored.keys"), 1010U);
    EXPECT_TRUE(isInLog("Refused a key, beyond the quota of user 12345: 10 keys: "))
        << broker->process().errors();
}

TEST_F(QuotaTest, oneThatPostsTooFastIsRefusedAndOthersAreNot)
{
    constexpr int posts = 2000;
    start(quota("posts-per-second = 5"));
    auto other = poster();
    for (int number = 0; number < posts; ++number)
        ASSERT_TRUE(other->write(ZmtpPeer::message(postOf("theirs", std::to_string(number)))));
    for (int number = 0; number < 100; ++number)
        ASSERT_TRUE(posting->write(ZmtpPeer::message(postOf("mine" + std::to_string(number), "1"))));
    EXPECT_TRUE(eventually([&] { return statistic("posts") == posts + 100; }));
    EXPECT_GT(statistic("policy.quota"), posts / 2U);
    EXPECT_EQ(statistic("stored.keys"), 101U);
}

TEST_F(QuotaTest, oneThatConnectsTooOftenIsClosedAndOthersAreNot)
{
    start(quota("connections = 3"));
    std::vector<std::unique_ptr<ZmtpPeer>> peers;
    for (int number = 0; number < 50; ++number)
        peers.push_back(peerOf(greedy, ZmtpPeer::postPort));
    EXPECT_TRUE(eventually([&] { return statistic("policy.quota") == 47; }));
    ZmtpPeer mine(ZmtpPeer::postPort);
    EXPECT_TRUE(mine.shakeHands());
    peers.clear();
    EXPECT_TRUE(eventually([] { return peerOf(greedy, ZmtpPeer::postPort)->shakeHands(); }));
}

TEST_F(QuotaTest, whatWasLoadedCounts)
{
    const std::string state = folder / "state";
    start(quota("keys = 10"), {"--state", state});
    auto other = poster();
    ASSERT_TRUE(other->write(ZmtpPeer::message(postOfMany("k", 10))));
    ASSERT_TRUE(eventually([&] { return statistic("stored.keys") == 10; }));
    EXPECT_EQ(broker->stop(), 0);
    other.reset();
    start(quota("keys = 10"), {"--state", state});
    other = poster();
    ASSERT_TRUE(other->write(ZmtpPeer::message(postOfMany("new", 10))));
    EXPECT_TRUE(eventually([&] { return statistic("policy.quota") == 10; }));
    EXPECT_EQ(statistic("stored.keys"), 10U);
}
