// The policy that is installed as an example.

#include <gtest/gtest.h>

#include "tests/broker/policy/PolicyFixture.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

PolicyPointer example()
{
    return policyOf(readFile(EXAMPLE_POLICY));
}

const Subject web = userSubject(webUser);

} // namespace

TEST(ExamplePolicy, isGood)
{
    EXPECT_EQ(errorsOf(readFile(EXAMPLE_POLICY)), Lines{});
    EXPECT_EQ(example()->warnings(), Lines{});
}

TEST(ExamplePolicy, refusesNothingYet)
{
    EXPECT_TRUE(example()->isAudit());
}

TEST(ExamplePolicy, letsEachServiceChangeItsOwnKeys)
{
    const auto policy = example();
    EXPECT_TRUE(may(*policy, serviceSubject("net.service"), Action::Post, "net.eth0"));
    EXPECT_TRUE(may(*policy, serviceSubject("power.service"), Action::Timers, "power.idle"));
    EXPECT_TRUE(may(*policy, serviceSubject("clock.service"), Action::Time));
    EXPECT_TRUE(may(*policy, serviceSubject("clock.service"), Action::Post, "clock.synced"));
    EXPECT_FALSE(may(*policy, serviceSubject("power.service"), Action::Post, "net.eth0"));
    EXPECT_FALSE(may(*policy, serviceSubject("clock.service"), Action::Post, "net.eth0"));
    EXPECT_FALSE(may(*policy, serviceSubject("net.service"), Action::Time));
}

TEST(ExamplePolicy, keepsTheForeignProgramFromTheRest)
{
    const auto policy = example();
    EXPECT_TRUE(may(*policy, web, Action::Post, "ui.reboot"));
    EXPECT_FALSE(may(*policy, web, Action::Post, "net.eth0"));
    EXPECT_TRUE(may(*policy, web, Action::See, "net.eth0"));
    EXPECT_FALSE(may(*policy, web, Action::See, "wifi.password"));
    EXPECT_FALSE(may(*policy, web, Action::Query, "net.secret.key"));
    EXPECT_FALSE(may(*policy, web, Action::Time));
}

TEST(ExamplePolicy, letsOthersLook)
{
    const auto policy = example();
    EXPECT_TRUE(policy->classOf(Subject()).mayAll(Action::See));
    EXPECT_FALSE(may(*policy, Subject(), Action::Post, "a"));
    EXPECT_TRUE(may(*policy, userSubject(1, {operatorsGroup}), Action::Forget, "a"));
    EXPECT_TRUE(may(*policy, userSubject(0), Action::Time));
}

TEST(ExamplePolicy, hasSharesAndValuesThatEndWithTheirOwner)
{
    const auto policy = example();
    EXPECT_EQ(policy->quotaFor(webUser)->keys, 10U);
    EXPECT_EQ(policy->quotaFor(netUser)->bytes, 1024U * 1024U);
    EXPECT_EQ(policy->tieFor("net.eth0")->becomes, "offline");
    EXPECT_EQ(policy->tieFor("ui.reboot")->becomes, "");
    EXPECT_EQ(policy->tieFor("power.idle"), nullptr);
}
