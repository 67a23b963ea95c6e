// How the real broker takes its policy: at the start, at SIGHUP, and in answers about it.

#include <csignal>

#include "broker/peer/Identities.h"
#include "tests/broker/PolicedBroker.h"

class UsedPolicy : public PolicedBroker
{
protected:
    /// The exit code and the output of a broker that does not start.
    std::pair<int, std::string> refusal(const std::string& policy)
    {
        writePolicy(policy);
        TestProcess process({STATUSBROKER_PRODUCT, "--policy", folder / "policy"});
        const int code = process.waitForExit().value_or(-1);
        return {code, process.errors()};
    }
};

TEST_F(UsedPolicy, atSighupAnotherPolicyIsInForceForThoseThatAreConnected)
{
    start(allOk);
    post(postOf("secret", "1"));
    reload(rule("deny = [\"post\", \"query\"]\nkeys = \"secret\""));
    ASSERT_TRUE(isInLog("Applied new limits, log level and policy"));
    post(postOf("secret", "2"));
    EXPECT_EQ(all(), "{}");
    EXPECT_EQ(statistic("policy.denied"), 1U);
}

TEST_F(UsedPolicy, aSubscriberThatMaySeeMoreIsToldOfIt)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    listen();
    post(R"({"postStatus":{"a":"1","secret":"2"}})");
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1"}})");
    reload(allOk);
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1","secret":"2"}})");
}

TEST_F(UsedPolicy, whatASubscriberMaySeeAfterASighupComesInOneNotification)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    listen();
    for (const char* key : {"a", "b", "secret", "other"})
    {
        post(postOf(key, "1"));
        if (std::string("secret") != key)
        {
            EXPECT_EQ(next(), std::string(R"({"statusUpdate":{")") + key + R"(":"1"}})");
        }
    }
    reload(rule("deny = \"see\"\nkeys = \"other\""));
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1","b":"1","secret":"1"}})");
}

TEST_F(UsedPolicy, atSighupTheSamePolicyTellsNobodyAnythingAgain)
{
    const std::string policy = rule("deny = \"see\"\nkeys = \"secret\"");
    start(policy);
    listen();
    post(postOf("a", "1"));
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1"}})");
    reload(policy);
    ASSERT_TRUE(isInLog("Applied new limits, log level and policy"));
    post(postOf("b", "1"));
    EXPECT_EQ(next(), R"({"statusUpdate":{"b":"1"}})");
}

TEST_F(UsedPolicy, thatAPolicyIsGoneOrEmptyIsLogged)
{
    start(allOk);
    EXPECT_TRUE(isInLog("has no rules"));
    const std::string config = folder / "conf";
    writeFile(config, "policy = " + (folder / "policy") + "\n");
    broker.reset();
    broker.emplace(std::vector<std::string>{"--config", config});
    writeFile(config, "");
    broker->process().signal(SIGHUP);
    EXPECT_TRUE(isInLog("There is no policy: clients may do everything"));
}

TEST_F(UsedPolicy, aSubscriberThatMaySeeLessIsNotToldAnyMore)
{
    start(allOk);
    listen();
    reload(rule("deny = \"see\"\nkeys = \"secret\""));
    ASSERT_TRUE(isInLog("Applied new limits, log level and policy"));
    post(postOf("secret", "2"));
    post(postOf("a", "1"));
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1"}})");
}

TEST_F(UsedPolicy, atSighupAFileThatIsWrongKeepsThePolicyBefore)
{
    start(rule("deny = \"post\"\nkeys = \"secret\""));
    reload("[[rule]]\nallow = \"everything\"\n");
    ASSERT_TRUE(isInLog("Keeping the old options: " + (folder / "policy") + ":2: "));
    post(postOf("secret", "2"));
    EXPECT_EQ(all(), "{}");
}

TEST_F(UsedPolicy, aBrokerWhosePolicyIsWrongDoesNotStart)
{
    const auto [code, errors] = refusal("[[rule]]\nallow = \"everything\"\n[[rule]]\ndeny = 5\n");
    EXPECT_EQ(code, 2);
    EXPECT_NE(errors.find((folder / "policy") + ":2: "), std::string::npos) << errors;
    EXPECT_NE(errors.find((folder / "policy") + ":4: "), std::string::npos) << errors;
}

// May be skipped: only a process with CAP_SYS_ADMIN can unmount the control groups, without which the kernel
// does not report services. The build server has it, but an ordinary user or a container has not. BlindGuard
// tests the refusal on every machine.
TEST_F(UsedPolicy, aBrokerDoesNotStartWhereItsPolicyCannotBeEnforced)
{
    const std::vector<std::string> ownMounts{"/usr/bin/unshare",
                                             "--mount",
                                             "/bin/sh",
                                             "-c",
                                             "umount --all --lazy --types cgroup2 && exec \"$@\"",
                                             "sh"};
    const auto run = [&](const std::vector<std::string>& command)
    {
        std::vector<std::string> all = ownMounts;
        all.insert(all.end(), command.begin(), command.end());
        TestProcess process(all);
        const int code = process.waitForExit().value_or(-1);
        return std::pair(code, process.errors());
    };
    if (run({"/bin/true"}).first != 0)
        GTEST_SKIP() << "this process may not change mounts";
    writePolicy("[[rule]]\nservice = \"net\"\ndeny = \"reset\"\n");
    const auto [code, errors] = run({STATUSBROKER_PRODUCT, "--policy", folder / "policy"});
    EXPECT_EQ(code, 1);
    EXPECT_NE(errors.find("the policy names services, but this kernel does not report them"),
              std::string::npos)
        << errors;
}

TEST_F(UsedPolicy, checkConfigExplainsIt)
{
    writePolicy(rule("deny = \"post\"\nkeys = \"secret\""));
    TestProcess process({STATUSBROKER_PRODUCT, "--policy", folder / "policy", "--check-config"});
    EXPECT_EQ(process.waitForExit(), 0);
    const std::string output = process.readRest();
    EXPECT_NE(output.find("mode: enforce\n"), std::string::npos) << output;
    EXPECT_NE(output.find("deny post of secret\n"), std::string::npos) << output;
}

TEST_F(UsedPolicy, itTellsWhatItSaysAboutAClient)
{
    // May be skipped: Linux tells control groups of connections since 5.7, the emulator never. Elsewhere
    // PolicyTest reads the same rules.
    if (!Identities().tellsServices())
        GTEST_SKIP() << "this kernel, or the emulator, tells no control groups";
    start("[[rule]]\nuser = 4000\ndeny = \"post\"\nkeys = \"secret\"\n"
          "[[rule]]\nservice = \"net\"\ndeny = \"reset\"\n");
    const auto decision = [&](const std::string& client, const std::string& action, const std::string& name)
    { return ask(R"({"getPolicyDecision":[")" + client + "\",\"" + action + "\",\"" + name + "\"]}"); };
    EXPECT_EQ(decision("4000", "post", "secret").find(R"({"allowed":"no","reason":"denied by )"), 0U);
    EXPECT_EQ(decision("4000", "post", "other"),
              R"({"allowed":"yes","reason":"allowed by the default, as no rule matches"})");
    EXPECT_EQ(decision("net.service", "reset", "a").find(R"({"allowed":"no")"), 0U);
    EXPECT_EQ(decision("net.service", "post", "secret").find(R"({"allowed":"yes")"), 0U);
    EXPECT_EQ(decision("4000:net.service", "post", "secret").find(R"({"allowed":"no")"), 0U);
    EXPECT_EQ(decision("4000:net.service", "reset", "a").find(R"({"allowed":"no")"), 0U);
    EXPECT_EQ(decision("4000", "time", "").find(R"({"allowed":"yes")"), 0U);
}

TEST_F(UsedPolicy, aQuestionAboutNobodyOrNothingGetsAnError)
{
    start(allOk);
    EXPECT_EQ(ask(R"({"getPolicyDecision":["no such user","post","a"]})"),
              R"({"error":"\"no such user\" is not a user"})");
    EXPECT_EQ(ask(R"({"getPolicyDecision":["0:net","post","a"]})"),
              R"({"error":"\"net\" is not a service, such as net.service"})");
    EXPECT_EQ(
        ask(R"({"getPolicyDecision":["0","look","a"]})"),
        R"({"error":"\"look\" is not one of post, reset, event, timer, counter, query, see, time, forget"})");
    EXPECT_EQ(ask(R"({"getPolicyDecision":[]})"), R"({"error":"\"\" is not a user"})");
}

TEST_F(UsedPolicy, whatWouldBeDeniedIsAllowedInAuditMode)
{
    start("mode = \"audit\"\n[[rule]]\nuser = 4000\ndeny = \"post\"\n");
    const std::string answer = ask(R"({"getPolicyDecision":["4000","post","a"]})");
    EXPECT_EQ(answer.find(R"({"allowed":"yes","reason":"denied by )"), 0U) << answer;
    EXPECT_NE(answer.find("only logged"), std::string::npos) << answer;
}
