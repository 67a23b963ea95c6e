#include "broker/Quotas.h"

#include <gtest/gtest.h>
#include <list>

#include "tests/broker/policy/PolicyFixture.h"

namespace
{

using namespace std::chrono_literals;

class QuotasTest : public testing::Test
{
protected:
    void use(const std::string& text)
    {
        const PolicyPointer before = std::exchange(policy, policyOf(text));
        quotas.setPolicy(*policy);
    }

    // Returns null if it is refused.
    Connection* connect(uid_t user)
    {
        Connection& connection = connections.emplace_back(Descriptor(), Handshake::Kind::Post, now);
        connection.identity.owner = Owner::known(user, 1, 1);
        return quotas.enter(connection, now) ? &connection : nullptr;
    }

    static std::string postsPerSecond(int posts)
    {
        return "[[quota]]\nposts-per-second = " + std::to_string(posts) + "\n";
    }

    // Posts this many names.
    bool post(const Connection& client, std::size_t names = 1)
    {
        if (!quotas.mayPost(client))
            return false;
        Quotas::charge(client, names);
        return true;
    }

    bool postAfter(std::chrono::milliseconds time, const Connection& client)
    {
        now += time;
        return post(client);
    }

    inline static TimePoint now = Clock::now();
    Refusals refusals;
    PolicyPointer policy;
    Quotas quotas{refusals, [] { return now; }};
    std::list<Connection> connections;
};

} // namespace

TEST_F(QuotasTest, aUserMayHaveSoManyConnectionsAndOthersTheirs)
{
    use("[[quota]]\nuser = \"web\"\nconnections = 2\n");
    EXPECT_TRUE(connect(webUser));
    Connection* second = connect(webUser);
    EXPECT_TRUE(second);
    EXPECT_FALSE(connect(webUser));
    EXPECT_TRUE(connect(netUser));
    EXPECT_EQ(refusals.count(Refusal::Quota), 1U);
    quotas.leave(*second);
    EXPECT_TRUE(connect(webUser));
}

TEST_F(QuotasTest, aConnectionIsCountedOnce)
{
    use("[[quota]]\nconnections = 1\n");
    Connection* connection = connect(webUser);
    ASSERT_TRUE(connection);
    EXPECT_TRUE(quotas.enter(*connection, now));
    quotas.leave(*connection);
    quotas.leave(*connection);
    EXPECT_TRUE(connect(webUser));
    EXPECT_FALSE(connect(webUser));
}

TEST_F(QuotasTest, inAuditModeNothingIsRefusedAndAllIsCounted)
{
    use("mode = \"audit\"\n[[quota]]\nconnections = 1\nkeys = 1\n");
    EXPECT_TRUE(connect(webUser));
    EXPECT_TRUE(connect(webUser));
    EXPECT_TRUE(quotas.mayTake(webUser, {1, 1}, {2, 2}));
    EXPECT_EQ(refusals.count(Refusal::Audited), 2U);
}

TEST_F(QuotasTest, anotherPolicyIsAppliedToThoseThatAreConnected)
{
    use("");
    Connection* connection = connect(webUser);
    use("[[quota]]\nconnections = 1\nposts-per-second = 1\n");
    EXPECT_TRUE(quotas.enter(*connection, now));
    EXPECT_FALSE(connect(webUser));
    EXPECT_TRUE(post(*connection, 100));
    EXPECT_FALSE(post(*connection));
    use("");
    EXPECT_TRUE(post(*connection));
}

// Only new connections are refused.
TEST_F(QuotasTest, connectionsThatAreThereStayWhenAPolicyAllowsFewer)
{
    use("");
    std::vector<Connection*> there{connect(webUser), connect(webUser)};
    for (Connection* connection : there)
        connection->rights = &policy->classOf(Subject());
    use("[[quota]]\nconnections = 1\n");
    for (Connection* connection : there)
        EXPECT_TRUE(quotas.enter(*connection, now));
    EXPECT_FALSE(connect(webUser));
}

// A user may post a second's share at once. A message that begins within its share is accepted as a whole.
TEST_F(QuotasTest, aUserThatHasPostedItsShareWaits)
{
    use(postsPerSecond(5));
    Connection* connection = connect(webUser);
    EXPECT_TRUE(post(*connection, 4));
    EXPECT_TRUE(post(*connection, 50000));
    EXPECT_FALSE(post(*connection));
    EXPECT_TRUE(post(*connect(netUser)));
}

TEST_F(QuotasTest, aUserGainsNothingByComingBack)
{
    use(postsPerSecond(5));
    Connection* connection = connect(webUser);
    EXPECT_TRUE(post(*connection, 50000));
    quotas.leave(*connection);
    now += 10s;
    for (uid_t other = 1000; other < 1200; ++other)
        quotas.leave(*connect(other)); // enough to make old users be forgotten
    EXPECT_FALSE(post(*connect(webUser)));
}

TEST_F(QuotasTest, aUserMayPostAgainAfterAWhile)
{
    use(postsPerSecond(1000));
    Connection* connection = connect(webUser);
    EXPECT_TRUE(post(*connection, 1010));
    EXPECT_FALSE(postAfter(10ms, *connection));
    EXPECT_TRUE(postAfter(1ms, *connection));
}

TEST_F(QuotasTest, aUserOwesNothingOfWhatWasOnlyLogged)
{
    use("mode = \"audit\"\n" + postsPerSecond(5));
    Connection* connection = connect(webUser);
    EXPECT_TRUE(post(*connection, 50000));
    EXPECT_TRUE(post(*connection, 50000));
    use(postsPerSecond(5));
    EXPECT_FALSE(post(*connection));
    EXPECT_TRUE(postAfter(1s, *connection));
}

TEST_F(QuotasTest, aUserThatPostsNothingSavesNothing)
{
    use(postsPerSecond(5));
    Connection* connection = connect(webUser);
    EXPECT_TRUE(post(*connection));
    now += 1h;
    EXPECT_TRUE(post(*connection, 5));
    EXPECT_FALSE(post(*connection));
}

TEST_F(QuotasTest, aUserThatTakesMoreThanItsPartOfTheStateIsRefused)
{
    use("[[quota]]\nuser = \"web\"\nkeys = 10\nbytes = 100\n");
    EXPECT_TRUE(quotas.mayTake(webUser, {9, 90}, {10, 100}));
    EXPECT_FALSE(quotas.mayTake(webUser, {10, 90}, {11, 91}));
    EXPECT_FALSE(quotas.mayTake(webUser, {9, 90}, {9, 101}));
    EXPECT_TRUE(quotas.mayTake(netUser, {10, 100}, {1000, 10000}));
}

// Its share may have been reduced.
TEST_F(QuotasTest, aUserThatHasMoreThanItsPartMayTakeLess)
{
    use("[[quota]]\nkeys = 10\nbytes = 100\n");
    EXPECT_TRUE(quotas.mayTake(webUser, {20, 200}, {20, 199}));
    EXPECT_FALSE(quotas.mayTake(webUser, {20, 200}, {20, 201}));
}

// In audit mode, the log shows what would be refused.
TEST_F(QuotasTest, inAuditModeWhatWouldBeRefusedCostsNothing)
{
    use("mode = \"audit\"\n" + postsPerSecond(5));
    Connection* connection = connect(webUser);
    for (int count = 0; count < 100; ++count)
        post(*connection, 10);
    const uint64_t before = refusals.count(Refusal::Audited);
    now += 10s;
    for (int count = 0; count < 5; ++count)
        post(*connection);
    EXPECT_EQ(refusals.count(Refusal::Audited), before);
}

TEST_F(QuotasTest, aDebtIsNotForgivenWithAnotherPolicy)
{
    use(postsPerSecond(5));
    Connection* connection = connect(webUser);
    EXPECT_TRUE(post(*connection, 50000));
    use("[[quota]]\nposts-per-second = 6\n");
    now += 1s;
    EXPECT_FALSE(post(*connection));
}

TEST_F(QuotasTest, aUserWithoutARateOwesNothing)
{
    use("[[quota]]\nconnections = 5\n");
    Connection* connection = connect(webUser);
    EXPECT_TRUE(post(*connection, 50000));
    use(postsPerSecond(5));
    now += 1s;
    EXPECT_TRUE(post(*connection));
}
