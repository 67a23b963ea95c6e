#include "broker/Guard.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/socket.h>

#include "broker/policy/PolicyFiles.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

std::unique_ptr<const Policy> policyOf(const std::string& text)
{
    const PolicyNames names{[](const std::string&) { return std::nullopt; },
                            [](const std::string&) { return std::nullopt; }};
    LoadedPolicy loaded = makePolicy({{"policy", text}}, names);
    EXPECT_EQ(loaded.errors, std::vector<std::string>{});
    return std::move(loaded.policy);
}

constexpr uid_t web = 33;
constexpr const char* webMayNotPost = "[[rule]]\nuser = 33\ndeny = \"post\"\n";
constexpr const char* netMayNotPost = "[[rule]]\nservice = \"net\"\ndeny = \"post\"\n";
constexpr const char* audit = "mode = \"audit\"\n";

class GuardTest : public testing::Test
{
protected:
    GuardTest()
    {
        std::array<int, 2> pair{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
        peer = Descriptor(pair[1]);
        connection.emplace(Descriptor(pair[0]), Handshake::Kind::Post, Clock::now());
    }

    void setPolicy(const std::string& text) { guard.setPolicy(policyOf(text)); }

    void identify(uid_t user, const std::string& service = "")
    {
        connection->identity.owner = Owner::known(user, 1, 1);
        connection->identity.service = service;
        connection->identity.isServiceKnown = true;
    }

    bool mayPost()
    {
        EXPECT_TRUE(guard.admit(*connection));
        return guard.may(*connection, Action::Post, "a");
    }

    const LogCapture log;
    Refusals refusals;
    Identities identities;
    Guard guard{identities, refusals, std::make_unique<const Policy>()};
    Descriptor peer;
    std::optional<Connection> connection;
};

class GuardOfServices : public GuardTest
{
protected:
    void SetUp() override
    {
        // May be skipped: Linux tells control groups of connections since 5.7, the emulator never. The tests
        // always run natively on such a kernel, and ServicesTest and PolicyTest everywhere.
        if (!identities.tellsServices())
            GTEST_SKIP() << "this kernel, or the emulator, tells no control groups";
    }
};

// The kernel reports no owners.
class BlindGuard : public GuardTest
{
protected:
    TemporaryFolder empty;
    Identities blind{empty / "", {empty / "", SockDiag(Descriptor())}};
};

} // namespace

TEST_F(GuardTest, withoutAPolicyAClientMayDoEverythingWhoeverItIs)
{
    EXPECT_TRUE(mayPost());
    EXPECT_TRUE(Guard::seesAll(*connection));
    EXPECT_TRUE(Guard::answersWithAll(*connection));
}

TEST_F(GuardTest, rulesForAUserConcernItsConnections)
{
    setPolicy(webMayNotPost);
    identify(web);
    EXPECT_FALSE(mayPost());
    identify(web + 1);
    EXPECT_TRUE(mayPost());
}

TEST_F(GuardOfServices, rulesForAServiceConcernItsConnections)
{
    setPolicy(netMayNotPost);
    identify(web, "net.service");
    EXPECT_FALSE(mayPost());
    identify(web, "ui.service");
    EXPECT_TRUE(mayPost());
    identify(web);
    EXPECT_TRUE(mayPost());
}

TEST_F(GuardTest, aConnectionOfAnUnknownUserIsRefusedIfThePolicyTellsClientsApart)
{
    EXPECT_TRUE(guard.admit(*connection));
    setPolicy("[[rule]]\ndeny = \"post\"\n");
    EXPECT_TRUE(guard.admit(*connection));
    setPolicy(webMayNotPost);
    EXPECT_FALSE(guard.admit(*connection));
    EXPECT_EQ(refusals.count(Refusal::UnknownOwner), 1U);
}

TEST_F(GuardOfServices, aConnectionOfAnUnknownUserIsRefusedIfThePolicyNamesServices)
{
    setPolicy(netMayNotPost);
    EXPECT_FALSE(guard.admit(*connection));
    EXPECT_EQ(refusals.count(Refusal::UnknownOwner), 1U);
}

TEST_F(GuardTest, aConnectionOfAUserWithoutAnEntryIsRefusedIfThePolicyNamesGroups)
{
    setPolicy("[[rule]]\ngroup = 5\ndeny = \"post\"\n");
    identify(0);
    EXPECT_TRUE(guard.admit(*connection));
    identify(3000000000);
    EXPECT_FALSE(guard.admit(*connection));
}

// The service may be found only later.
TEST_F(GuardOfServices, aConnectionOfAnUnknownServiceIsRefusedIfThePolicyNamesServices)
{
    identify(web);
    connection->identity.isServiceKnown = false;
    setPolicy(webMayNotPost);
    EXPECT_TRUE(guard.admit(*connection));
    setPolicy(netMayNotPost);
    EXPECT_FALSE(guard.admit(*connection));
}

TEST_F(GuardTest, inAuditModeAConnectionOfAnUnknownUserIsTakenAndLogged)
{
    setPolicy(std::string(audit) + webMayNotPost);
    connection->identity.owner = Owner::unknown(Owner::Knowledge::NoMeans);
    EXPECT_TRUE(guard.admit(*connection));
    EXPECT_EQ(refusals.count(Refusal::UnknownOwner), 0U);
    EXPECT_EQ(refusals.count(Refusal::Audited), 1U);
    EXPECT_TRUE(log.has(2, "Would refuse a connection, the policy needs to know its owner: no way to ask the "
                           "kernel"));
}

// A client checks whether the broker is there, and leaves.
TEST_F(GuardTest, aConnectionThatHasGoneWithoutAWordIsNotLogged)
{
    setPolicy(webMayNotPost);
    connection->identity.owner = Owner::unknown(Owner::Knowledge::NotEstablished);
    EXPECT_FALSE(guard.admit(*connection));
    EXPECT_EQ(refusals.count(Refusal::UnknownOwner), 0U);
    ASSERT_EQ(write(peer.number(), "x", 1), 1);
    EXPECT_FALSE(guard.admit(*connection));
    EXPECT_EQ(refusals.count(Refusal::UnknownOwner), 1U);
}

TEST_F(GuardTest, whatMayNotBeSeenIsNotLoggedButInAuditMode)
{
    const std::string hidden = "[[rule]]\ndeny = \"see\"\nkeys = \"a\"\n";
    setPolicy(hidden);
    EXPECT_TRUE(guard.admit(*connection));
    EXPECT_FALSE(guard.shows(*connection, "a"));
    EXPECT_TRUE(guard.shows(*connection, "b"));
    EXPECT_EQ(connection->refusals, 0U);
    setPolicy(audit + hidden);
    EXPECT_TRUE(guard.admit(*connection));
    EXPECT_TRUE(guard.shows(*connection, "a"));
    EXPECT_EQ(refusals.count(Refusal::AuditedView), 1U);
    EXPECT_EQ(connection->refusals, 1U);
}

TEST_F(GuardTest, anAnswerHoldsOnlyWhatMayBeAskedForAndSeen)
{
    setPolicy("[[rule]]\ndeny = \"see\"\nkeys = \"a\"\n[[rule]]\ndeny = \"query\"\nkeys = \"b\"\n");
    EXPECT_TRUE(guard.admit(*connection));
    EXPECT_FALSE(Guard::answersWithAll(*connection));
    EXPECT_FALSE(guard.answersWith(*connection, "a"));
    EXPECT_FALSE(guard.answersWith(*connection, "b"));
    EXPECT_TRUE(guard.answersWith(*connection, "c"));
}

TEST_F(GuardTest, refusalsAreThoseOfTheConnection)
{
    setPolicy(webMayNotPost);
    identify(web);
    ASSERT_TRUE(guard.admit(*connection));
    const Refusals::From from(refusals, *connection);
    EXPECT_FALSE(guard.may(*connection, Action::Post, "a"));
    EXPECT_EQ(connection->refusals, 1U);
    EXPECT_EQ(refusals.count(Refusal::Denied), 1U);
}

TEST_F(BlindGuard, refusesAPolicyThatTellsClientsApartAndKeepsTheOneBefore)
{
    Guard blinded(blind, refusals, policyOf("[[rule]]\ndeny = \"post\"\n"));
    EXPECT_THROW(blinded.setPolicy(policyOf(webMayNotPost)), std::runtime_error);
    EXPECT_THROW(blinded.setPolicy(policyOf(netMayNotPost)), std::runtime_error);
    EXPECT_EQ(blinded.policy().rules(), 1U);
    EXPECT_TRUE(blinded.admit(*connection));
    EXPECT_FALSE(blinded.may(*connection, Action::Post, "a"));
}

TEST_F(BlindGuard, takesAPolicyThatOnlyLogs)
{
    Guard blinded(blind, refusals, policyOf(std::string(audit) + webMayNotPost));
    EXPECT_NO_THROW(blinded.setPolicy(policyOf(std::string(audit) + netMayNotPost)));
}

// The table of connections, which every Linux has, contains users but no control groups.
TEST_F(BlindGuard, refusesAPolicyThatNamesServicesWhereOnlyUsersAreTold)
{
    Identities users("/proc", {"/proc", SockDiag(Descriptor())});
    Guard blinded(users, refusals, policyOf(webMayNotPost));
    EXPECT_THROW(blinded.setPolicy(policyOf(netMayNotPost)), std::runtime_error);
}
