// Decisions, and their reasons.

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

#include "tests/broker/policy/PolicyFixture.h"

namespace
{

const Subject anybody = userSubject(999);
const Subject unknown{};

std::vector<Action> allActions()
{
    std::vector<Action> actions;
    for (std::size_t i = 0; i < actionCount; ++i)
        actions.push_back(static_cast<Action>(i));
    return actions;
}

} // namespace

// ------------------------------------------------------------------------------------------------ default

TEST(NoPolicy, allowsEverything)
{
    const Policy policy;
    for (const Action action : allActions())
    {
        EXPECT_TRUE(may(policy, unknown, action, "a"));
        EXPECT_TRUE(policy.classOf(unknown).mayAll(action));
    }
    EXPECT_FALSE(policy.isAudit());
    EXPECT_FALSE(policy.hasTies());
    EXPECT_EQ(policy.tieFor("a"), nullptr);
    EXPECT_EQ(policy.quotaFor(webUser), nullptr);
}

TEST(Policy, ofNoFilesAllowsEverything)
{
    EXPECT_TRUE(may(*policyOf(std::vector<PolicySource>{}), anybody, Action::Post, "a"));
    EXPECT_TRUE(may(*policyOf(""), anybody, Action::Post, "a"));
}

TEST(Policy, theDefaultDecidesWhereNoRuleMatches)
{
    const auto policy = policyOf("default = \"deny\"\n[[rule]]\nallow = \"post\"\nkeys = \"a\"\n");
    EXPECT_TRUE(may(*policy, anybody, Action::Post, "a"));
    EXPECT_FALSE(may(*policy, anybody, Action::Post, "b"));
    EXPECT_FALSE(may(*policy, anybody, Action::Reset, "a"));
    EXPECT_FALSE(may(*policy, unknown, Action::Time));
    EXPECT_TRUE(may(*policyOf("default = \"allow\"\n"), anybody, Action::Post, "a"));
}

TEST(Policy, theDefaultMayBeInALaterFile)
{
    const auto policy =
        policyOf({{"a", "[[rule]]\nallow = \"post\"\n"}, {"b", "default = \"deny\"\nmode = \"audit\"\n"}});
    EXPECT_TRUE(may(*policy, anybody, Action::Post, "a"));
    EXPECT_FALSE(may(*policy, anybody, Action::Reset, "a"));
    EXPECT_TRUE(policy->isAudit());
}

// -------------------------------------------------------------------------------------------------- order

TEST(Policy, theFirstRuleThatMatchesDecides)
{
    const auto policy = policyOf("[[rule]]\nallow = \"post\"\nkeys = \"net.open.*\"\n"
                                 "[[rule]]\ndeny = \"post\"\nkeys = \"net.*\"\n"
                                 "[[rule]]\nallow = \"post\"\nkeys = \"net.state\"\n");
    EXPECT_TRUE(may(*policy, anybody, Action::Post, "net.open.a"));
    EXPECT_FALSE(may(*policy, anybody, Action::Post, "net.state"));
    EXPECT_TRUE(may(*policy, anybody, Action::Post, "power"));
}

TEST(Policy, rulesOfEarlierFilesComeFirst)
{
    const PolicySource allows{"a", "[[rule]]\nallow = \"post\"\n"};
    const PolicySource denies{"b", "[[rule]]\ndeny = \"post\"\n"};
    EXPECT_TRUE(may(*policyOf({allows, denies}), anybody, Action::Post, "a"));
    EXPECT_FALSE(may(*policyOf({denies, allows}), anybody, Action::Post, "a"));
}

TEST(Policy, aRuleNamesItsPlace)
{
    const auto policy = policyOf("\n[[rule]]\ndeny = \"post\"\nkeys = \"a\"\n");
    const Decision decision = policy->classOf(anybody).decide(Action::Post, "a");
    EXPECT_FALSE(decision.isAllowed);
    EXPECT_EQ(decision.rule->place, "file:2");
    EXPECT_EQ(policy->classOf(anybody).decide(Action::Post, "b").rule->place, "");
}

// ------------------------------------------------------------------------------------------------ actions

TEST(Policy, aRuleIsAboutItsActionsOnly)
{
    for (std::size_t i = 0; i < actionCount; ++i)
    {
        const auto policy = policyOf("[[rule]]\ndeny = \"" + std::string(actionNames[i]) + "\"\n");
        for (const Action action : allActions())
            EXPECT_EQ(may(*policy, anybody, action, "a"), action != static_cast<Action>(i));
    }
}

TEST(Policy, allActionsMayBeNamedAtOnce)
{
    const auto policy = policyOf("[[rule]]\ndeny = \"all\"\n");
    for (const Action action : allActions())
        EXPECT_FALSE(may(*policy, anybody, action, "a"));
}

TEST(Policy, timeIsDecidedByRulesForEveryName)
{
    const auto policy =
        policyOf("default = \"deny\"\n[[rule]]\nuser = \"net\"\nallow = \"all\"\nkeys = \"a\"\n"
                 "[[rule]]\nuser = \"web\"\nallow = \"all\"\nkeys = \"*\"\n");
    EXPECT_FALSE(may(*policy, userSubject(netUser), Action::Time));
    EXPECT_TRUE(may(*policy, userSubject(webUser), Action::Time));
}

// ------------------------------------------------------------------------------------------------ clients

TEST(Policy, aRuleForAUserConcernsThatUser)
{
    const auto policy = policyOf("[[rule]]\nuser = [\"net\", 55]\ndeny = \"post\"\n");
    EXPECT_FALSE(may(*policy, userSubject(netUser), Action::Post, "a"));
    EXPECT_FALSE(may(*policy, userSubject(55), Action::Post, "a"));
    EXPECT_TRUE(may(*policy, userSubject(webUser), Action::Post, "a"));
}

TEST(Policy, aRuleForAGroupConcernsItsMembers)
{
    const auto policy = policyOf("[[rule]]\ngroup = [\"operators\", 77]\ndeny = \"post\"\n");
    EXPECT_FALSE(may(*policy, userSubject(1, {5, operatorsGroup}), Action::Post, "a"));
    EXPECT_FALSE(may(*policy, userSubject(1, {77}), Action::Post, "a"));
    EXPECT_TRUE(may(*policy, userSubject(1, {5, netGroup}), Action::Post, "a"));
    EXPECT_TRUE(may(*policy, userSubject(operatorsGroup), Action::Post, "a"));
}

TEST(Policy, aServiceIsComparedAsAWhole)
{
    const auto policy =
        policyOf("[[rule]]\nservice = [\"net\", \"b.service\", \"c.scope\", \"phone\"]\ndeny = \"post\"\n");
    for (const char* name : {"net.service", "b.service", "c.scope", "phone.service"})
        EXPECT_FALSE(may(*policy, serviceSubject(name), Action::Post, "a")) << name;
    for (const char* name : {"net", "net.scope", "net.service.service", "Net.service", "a-net.service",
                             "net.services", "c.scope.service", "c.service", ""})
        EXPECT_TRUE(may(*policy, serviceSubject(name), Action::Post, "a")) << name;
}

TEST(Policy, aRuleMayNeedUserGroupAndService)
{
    const auto policy = policyOf(
        "default = \"deny\"\n[[rule]]\nuser = \"web\"\ngroup = \"net\"\nservice = \"w\"\nallow = \"post\"\n");
    EXPECT_TRUE(may(*policy, userSubject(webUser, {netGroup}, "w.service"), Action::Post, "a"));
    EXPECT_FALSE(may(*policy, userSubject(netUser, {netGroup}, "w.service"), Action::Post, "a"));
    EXPECT_FALSE(may(*policy, userSubject(webUser, {}, "w.service"), Action::Post, "a"));
    EXPECT_FALSE(may(*policy, userSubject(webUser, {netGroup}, "x.service"), Action::Post, "a"));
}

TEST(Policy, anUnknownClientIsOnlyAnyone)
{
    const auto policy =
        policyOf("default = \"deny\"\n[[rule]]\nservice = \"net\"\nallow = \"post\"\n"
                 "[[rule]]\ngroup = \"net\"\nallow = \"post\"\n[[rule]]\nallow = \"query\"\n");
    const Subject halfKnown{std::nullopt, {netGroup}, "net.service"};
    EXPECT_FALSE(may(*policy, halfKnown, Action::Post, "a"));
    EXPECT_TRUE(may(*policy, halfKnown, Action::Query, "a"));
}

TEST(Policy, unknownNamesMatchNobodyAndAreWarnedOf)
{
    const auto policy = policyOf("default = \"deny\"\n[[rule]]\nuser = \"nosuch\"\nallow = \"post\"\n"
                                 "[[rule]]\ngroup = [\"no\",\n\"net\"]\nallow = \"post\"\n");
    EXPECT_EQ(policy->warnings(), (Lines{"file:3: unknown user \"nosuch\": no client matches it",
                                         "file:6: unknown group \"no\": no client matches it"}));
    EXPECT_FALSE(may(*policy, anybody, Action::Post, "a"));
    EXPECT_FALSE(may(*policy, unknown, Action::Post, "a"));
    EXPECT_TRUE(may(*policy, userSubject(1, {netGroup}), Action::Post, "a"));
}

TEST(Policy, eachNameIsLookedUpOnce)
{
    int count = 0;
    const PolicyNames names{[&](const std::string&) -> std::optional<uid_t>
                            {
                                ++count;
                                return webUser;
                            },
                            nullptr};
    const std::string rule = "[[rule]]\nuser = \"web\"\ndeny = \"post\"\n";
    EXPECT_TRUE(makePolicy({{"file", rule + rule}, {"b", rule}}, names).policy);
    EXPECT_EQ(count, 1);
}

// ------------------------------------------------------------------------------------------------ classes

TEST(PolicyClass, isSharedByClientsOfTheSameRules)
{
    const auto policy =
        policyOf("[[rule]]\nuser = \"web\"\ndeny = \"post\"\n[[rule]]\ngroup = \"net\"\ndeny = \"see\"\n");
    const PolicyClass* others = &policy->classOf(anybody);
    EXPECT_EQ(&policy->classOf(unknown), others);
    EXPECT_EQ(&policy->classOf(serviceSubject("x.service")), others);
    EXPECT_NE(&policy->classOf(userSubject(webUser)), others);
    EXPECT_EQ(&policy->classOf(userSubject(webUser)), &policy->classOf(userSubject(webUser, {5})));
    EXPECT_NE(&policy->classOf(userSubject(webUser)), &policy->classOf(userSubject(webUser, {netGroup})));
}

TEST(PolicyClass, mayDoAllWhereNothingIsDenied)
{
    const auto policy = policyOf("[[rule]]\nuser = \"web\"\ndeny = \"post\"\nkeys = \"a\"\n"
                                 "[[rule]]\nallow = \"reset\"\n[[rule]]\ndeny = \"reset\"\nkeys = \"b\"\n"
                                 "[[rule]]\ndeny = \"event\"\nkeys = \"b\"\n");
    EXPECT_FALSE(policy->classOf(userSubject(webUser)).mayAll(Action::Post));
    EXPECT_TRUE(policy->classOf(anybody).mayAll(Action::Post));
    EXPECT_TRUE(policy->classOf(anybody).mayAll(Action::Reset));
    EXPECT_FALSE(policy->classOf(anybody).mayAll(Action::Event));
    EXPECT_TRUE(policy->classOf(anybody).mayAll(Action::See));
}

TEST(PolicyClass, mayNotDoAllWhereTheDefaultDenies)
{
    const auto policy =
        policyOf("default = \"deny\"\n[[rule]]\nallow = \"post\"\nkeys = \"a\"\n[[rule]]\nallow = \"see\"\n");
    EXPECT_FALSE(policy->classOf(anybody).mayAll(Action::Post));
    EXPECT_TRUE(policy->classOf(anybody).mayAll(Action::See));
}

// Otherwise an unknown user would have an extra share.
TEST(PolicyClass, sharesTellClientsApart)
{
    EXPECT_FALSE(policyOf("[[owned]]\nkeys = \"a\"\n")->tellsClientsApart());
    EXPECT_TRUE(policyOf("[[quota]]\nkeys = 5\n")->tellsClientsApart());
}

// A denying rule is still found, so that it can be logged.
TEST(PolicyClass, auditDecidesAsEnforceDoes)
{
    const auto policy = policyOf("mode = \"audit\"\n[[rule]]\ndeny = \"post\"\n");
    EXPECT_TRUE(policy->isAudit());
    EXPECT_FALSE(may(*policy, anybody, Action::Post, "a"));
    EXPECT_FALSE(policy->classOf(anybody).mayAll(Action::Post));
}

namespace
{

bool matches(const Glob& glob, const std::string& name)
{
    const std::size_t length = glob.literal().size();
    return name.compare(0, length, glob.literal()) == 0 &&
           (glob.rest().empty() ? name.size() == length : Glob::matches(glob.rest(), name.substr(length)));
}

// A rule as text, and its meaning.
struct RandomRule
{
    unsigned user;      // 0: anyone
    std::size_t action; // actionCount: all
    bool isAllowed;
    std::string glob;

    std::string text() const
    {
        const std::string who = user == 0 ? "" : "user = " + std::to_string(user) + "\n";
        const std::string name(action == actionCount ? "all" : actionNames[action]);
        return "[[rule]]\n" + who + (isAllowed ? "allow" : "deny") + " = \"" + name + "\"\nkeys = \"" + glob +
               "\"\n";
    }

    bool isFor(unsigned client, std::size_t wanted, const std::string& name) const
    {
        return (user == 0 || user == client) && (action == actionCount || action == wanted) &&
               matches(Glob(glob), name);
    }
};

class RandomPolicies
{
public:
    unsigned number(std::size_t count) { return static_cast<unsigned>(mRandom() % count); }

    std::string text(const std::string& letters)
    {
        std::string result(1 + number(5), ' ');
        std::generate(result.begin(), result.end(), [&] { return letters[number(letters.size())]; });
        return result;
    }

    std::vector<RandomRule> rules(std::size_t count)
    {
        std::vector<RandomRule> rules;
        while (rules.size() < count)
            rules.push_back({number(4), number(actionCount + 1), number(2) == 0, text("ab.*?")});
        return rules;
    }

private:
    std::mt19937 mRandom{20261122};
};

} // namespace

TEST(Policy, decidesAsTryingAllRulesOneByOneDoes)
{
    RandomPolicies random;
    for (std::size_t round = 0; round < 100; ++round)
    {
        const std::vector<RandomRule> rules = random.rules(round);
        std::string text = round % 2 == 0 ? "default = \"deny\"\n" : "";
        for (const RandomRule& rule : rules)
            text += rule.text();
        const auto policy = policyOf(text);
        for (int i = 0; i < 100; ++i)
        {
            const unsigned client = 1 + random.number(4);
            const std::size_t action = random.number(actionCount);
            const std::string name = random.text("ab.");
            const auto first =
                std::find_if(rules.begin(), rules.end(),
                             [&](const RandomRule& rule) { return rule.isFor(client, action, name); });
            const bool expected = first == rules.end() ? round % 2 != 0 : first->isAllowed;
            const PolicyClass& rights = policy->classOf(userSubject(client));
            ASSERT_EQ(rights.decide(static_cast<Action>(action), name).isAllowed, expected) << text << name;
            ASSERT_TRUE(expected || !rights.mayAll(static_cast<Action>(action))) << text << name;
            ASSERT_FALSE(expected && rights.mayNothing(static_cast<Action>(action))) << text << name;
            const Decision once = policy->decideOnce(userSubject(client), static_cast<Action>(action), name);
            ASSERT_EQ(once.rule, rights.decide(static_cast<Action>(action), name).rule) << text << name;
        }
    }
}

// -------------------------------------------------------------------------------------------------- quotas

TEST(PolicyQuota, isThatOfTheUserOrTheOneOfAll)
{
    const auto policy = policyOf("[[quota]]\nuser = [\"web\", 55]\nkeys = 10\nbytes = \"4K\"\n"
                                 "[[quota]]\nconnections = 20\nposts-per-second = 500\n");
    for (const uid_t user : {webUser, uid_t{55}})
    {
        const PolicyQuota* quota = policy->quotaFor(user);
        ASSERT_NE(quota, nullptr);
        EXPECT_EQ(quota->keys, 10U);
        EXPECT_EQ(quota->bytes, 4096U);
        EXPECT_EQ(quota->connections, std::nullopt);
        EXPECT_EQ(quota->place, "file:1");
    }
    for (const std::optional<uid_t> user : {std::optional(netUser), std::optional<uid_t>()})
    {
        const PolicyQuota* quota = policy->quotaFor(user);
        ASSERT_NE(quota, nullptr);
        EXPECT_EQ(quota->keys, std::nullopt);
        EXPECT_EQ(quota->connections, 20U);
        EXPECT_EQ(quota->postsPerSecond, 500U);
    }
}

TEST(PolicyQuota, isMissingForUsersThatNoneNames)
{
    const auto policy = policyOf("[[quota]]\nuser = [\"web\", \"nosuch\"]\nkeys = 10\n");
    EXPECT_NE(policy->quotaFor(webUser), nullptr);
    EXPECT_EQ(policy->quotaFor(netUser), nullptr);
    EXPECT_EQ(policy->quotaFor(std::nullopt), nullptr);
}

TEST(PolicyQuota, ofUnknownUsersIsForNobody)
{
    const auto policy = policyOf("[[quota]]\nuser = \"nosuch\"\nkeys = 10\n");
    EXPECT_EQ(policy->quotaFor(webUser), nullptr);
    EXPECT_EQ(policy->warnings(), Lines{"file:2: unknown user \"nosuch\": no client matches it"});
}

TEST(PolicyQuota, takesBytesAsNumberToo)
{
    EXPECT_EQ(policyOf("[[quota]]\nbytes = 65536\n")->quotaFor(1)->bytes, 65536U);
}

// ---------------------------------------------------------------------------------------------------- ties

TEST(PolicyTie, isTheFirstThatMatches)
{
    const auto policy =
        policyOf("[[owned]]\nkeys = [\"net.eth0\", \"*.state\"]\nbecomes = \"offline\"\ngrace = \"500ms\"\n"
                 "[[owned]]\nkeys = \"net.*\"\n");
    EXPECT_TRUE(policy->hasTies());
    for (const char* key : {"net.eth0", "net.state", "power.state"})
    {
        const PolicyTie* tie = policy->tieFor(key);
        ASSERT_NE(tie, nullptr);
        EXPECT_EQ(tie->becomes, "offline");
        EXPECT_EQ(tie->grace, std::chrono::milliseconds(500));
        EXPECT_EQ(tie->place, "file:1");
    }
    const PolicyTie* tie = policy->tieFor("net.eth1");
    ASSERT_NE(tie, nullptr);
    EXPECT_EQ(tie->becomes, "");
    EXPECT_EQ(tie->grace, std::chrono::seconds(2));
    EXPECT_EQ(policy->tieFor("power"), nullptr);
}

TEST(PolicyTie, takesDurationsInThreeUnits)
{
    const auto grace = [](const std::string& text)
    { return policyOf("[[owned]]\nkeys = \"a\"\ngrace = \"" + text + "\"\n")->tieFor("a")->grace.count(); };
    EXPECT_EQ(grace("0s"), 0);
    EXPECT_EQ(grace("1500ms"), 1500);
    EXPECT_EQ(grace("3600s"), 3600000);
    EXPECT_EQ(grace("60m"), 3600000);
}

// ------------------------------------------------------------------------------------------------ warnings

TEST(PolicyWarning, isForARuleBehindOneForEverybody)
{
    const auto policy =
        policyOf("[[rule]]\nallow = [\"post\", \"see\"]\n[[rule]]\nuser = \"web\"\ndeny = \"post\"\n"
                 "keys = \"a\"\n[[rule]]\ndeny = [\"post\", \"reset\"]\n");
    EXPECT_EQ(policy->warnings(),
              Lines{"file:3: the rule never decides: earlier rules always do, the last of them at file:1"});
}

TEST(PolicyWarning, isForARuleBehindSeveralForTheSame)
{
    const std::string who = "user = \"web\"\nkeys = \"a\"\n";
    const auto policy = policyOf("[[rule]]\n" + who +
                                 "allow = \"post\"\n[[rule]]\nkeys = \"a\"\ndeny = \"reset\"\n[[rule]]\n" +
                                 who + "deny = [\"post\", \"reset\"]\n");
    EXPECT_EQ(policy->warnings(),
              Lines{"file:8: the rule never decides: earlier rules always do, the last of them at file:1"});
}

TEST(PolicyWarning, isNotForRulesThatDecideSomething)
{
    const auto policy =
        policyOf("[[rule]]\nuser = \"web\"\nallow = \"post\"\n[[rule]]\nallow = \"post\"\nkeys = \"a\"\n"
                 "[[rule]]\nuser = \"net\"\ndeny = \"post\"\n[[rule]]\ndeny = \"post\"\nkeys = \"a*\"\n"
                 "[[rule]]\ndeny = \"post\"\n");
    EXPECT_EQ(policy->warnings(), Lines{});
}

TEST(PolicyWarning, isForTimeWithNames)
{
    const auto policy =
        policyOf("[[rule]]\nallow = [\"post\", \"time\"]\nkeys = \"a\"\n[[rule]]\nallow = \"all\"\n"
                 "keys = \"a\"\n[[rule]]\ndeny = [\"time\"]\nkeys = \"*\"\n");
    EXPECT_EQ(policy->warnings(),
              Lines{"file:1: the rule never decides on time, which has no name: leave out keys for it"});
}

// ------------------------------------------------------------------------------------------------ for people

namespace
{

constexpr const char* described = R"(default = "deny"
[[rule]]
user = ["web", "net"]
service = "w"
deny = ["post", "reset"]
keys = ["net.*", "a"]

[[rule]]
allow = "all"
keys = "b*"

[[quota]]
user = "web"
keys = 1000
posts-per-second = 5
[[quota]]
bytes = "4K"
connections = 6

[[owned]]
keys = ["net.*", "a"]
becomes = "offline"
grace = "500ms"
[[owned]]
keys = "c"
)";

} // namespace

TEST(PolicyExplained, namesTheRuleOrTheDefault)
{
    const auto policy = policyOf(described);
    const Subject web = userSubject(webUser, {}, "w.service");
    EXPECT_EQ(policy->explain(web, Action::Post, "net.eth0"),
              "denied by file:2: service w.service, user web or net: deny post, reset of net.*, a");
    EXPECT_EQ(policy->explain(anybody, Action::See, "bee"), "allowed by file:8: anyone: allow all of b*");
    EXPECT_EQ(policy->explain(anybody, Action::See, "c"),
              "denied by the default in file:1, as no rule matches");
    EXPECT_EQ(Policy().explain(anybody, Action::See, "c"), "allowed by the default, as no rule matches");
}

TEST(PolicyExplained, tellsWhereNothingIsEnforced)
{
    const auto policy = policyOf("mode = \"audit\"\n[[rule]]\ndeny = \"post\"\n");
    EXPECT_EQ(policy->explain(anybody, Action::Post, "a"),
              "denied by file:2: anyone: deny post of every name (only logged: mode is audit in file:1)");
    EXPECT_EQ(policy->explain(anybody, Action::Reset, "a"), "allowed by the default, as no rule matches");
}

TEST(PolicyDescribed, listsEverythingInItsOrder)
{
    EXPECT_EQ(policyOf(described)->describe(),
              "mode: enforce\n"
              "rules, the first match decides:\n"
              "  file:2: service w.service, user web or net: deny post, reset of net.*, a\n"
              "  file:8: anyone: allow all of b*\n"
              "everything else is denied (file:1)\n"
              "quotas:\n"
              "  file:12: user web: 1000 keys, 5 posts per second\n"
              "  file:16: each other user: 4096 bytes, 6 connections\n"
              "values that end with their owner:\n"
              "  file:20: net.*, a: become \"offline\" 500 ms after it has gone\n"
              "  file:24: c: reset 2000 ms after it has gone\n");
}

TEST(PolicyDescribed, isShortWithoutRules)
{
    EXPECT_EQ(Policy().describe(), "mode: enforce\nno rules\neverything else is allowed\n");
}

TEST(PolicyDescribed, listsWarnings)
{
    EXPECT_EQ(policyOf("mode = \"audit\"\n[[rule]]\nuser = \"nosuch\"\nallow = \"see\"\n")->describe(),
              "mode: audit (file:1)\n"
              "rules, the first match decides:\n"
              "  file:2: user nosuch: allow see of every name\n"
              "everything else is allowed\n"
              "warnings:\n"
              "  file:3: unknown user \"nosuch\": no client matches it\n");
}
