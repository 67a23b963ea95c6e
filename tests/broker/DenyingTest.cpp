// The real broker prevents what its policy denies.

#include <csignal>

#include "tests/broker/PolicedBroker.h"
#include "tests/support/ProgramName.h"

class Denying : public PolicedBroker
{
protected:
    // Posts as a client that ends before the broker looks at it.
    void postAndGo()
    {
        broker->process().suspend();
        {
            ZmtpPeer gone(ZmtpPeer::postPort);
            ASSERT_TRUE(gone.write(ZmtpPeer::greeting() + ZmtpPeer::ready("PUB") +
                                   ZmtpPeer::message(postOf("secret", "1")) +
                                   ZmtpPeer::message(postOf("other", "1"))));
        }
        broker->process().signal(SIGCONT);
    }
};

TEST_F(Denying, aPostIsTakenWithoutTheKeysThatAreDenied)
{
    start(rule("deny = \"post\"\nkeys = \"secret.*\""));
    post(R"({"postStatus":{"a":"1","secret.b":"2","z":"3"}})");
    EXPECT_EQ(all(), R"({"a":"1","z":"3"})");
}

TEST_F(Denying, anUnknownKeyIsNotMade)
{
    start("default = \"deny\"\n" + rule("allow = [\"post\", \"query\", \"see\"]\nkeys = \"a\""));
    post(R"({"postStatus":{"b":"1"}})");
    EXPECT_EQ(statistic("stored.keys"), 0U);
}

TEST_F(Denying, refusalsAreCountedAndLoggedWithTheClientAndTheRule)
{
    start(rule("deny = \"post\"\nkeys = \"secret.*\""));
    post(R"({"postStatus":{"secret.a":"1","secret.b":"2"}})");
    EXPECT_EQ(statistic("policy.denied"), 2U);
    EXPECT_TRUE(isInLog("Denied post of [secret.a], by " + (folder / "policy") + ":1 ["));
    EXPECT_TRUE(isInLog("process " + std::to_string(getpid()) + " (" + kernelNameOf("DenyingTest") + ")]"));
    EXPECT_NE(ask(R"({"getBrokerClients":"null"})").find(R"("refusals":2)"), std::string::npos);
}

TEST_F(Denying, aValueThatMayNotBeResetStays)
{
    start(rule("deny = \"reset\"\nkeys = \"a\""));
    post(R"({"postStatus":{"a":"1","b":"2"}})");
    post(R"({"resetStatus":["a","b"]})");
    EXPECT_EQ(all(), R"({"a":"1","b":""})");
}

TEST_F(Denying, anEventThatIsDeniedReachesNobody)
{
    start(rule("deny = \"event\"\nkeys = \"bell\""));
    listen();
    post(R"({"postEvent":{"bell":"1"}})");
    post(R"({"postEvent":{"door":"1"}})");
    EXPECT_EQ(next(), R"({"eventUpdate":{"door":"1"}})");
}

TEST_F(Denying, timersThatAreDeniedDoNotRun)
{
    start(rule("deny = \"timer\"\nkeys = \"t\""));
    post(R"({"startTimer":"t"})");
    post(R"({"restartTimer":"t"})");
    EXPECT_EQ(ask(R"({"getTimerLastStarted":"t"})"), "0");
    post(R"({"startTimer":"u"})");
    EXPECT_NE(ask(R"({"getTimerLastStarted":"u"})"), "0");
    EXPECT_EQ(statistic("policy.denied"), 2U);
}

TEST_F(Denying, aTimerThatRunsMayNeitherBeStoppedNorReset)
{
    start(allOk);
    post(R"({"startTimer":"t"})");
    reload(rule("deny = \"timer\"\nkeys = \"t\""));
    ASSERT_TRUE(isInLog("Applied new limits, log level and policy"));
    const std::string started = ask(R"({"getTimerLastStarted":"t"})");
    post(R"({"stopTimer":"t"})");
    post(R"({"resetTimer":"t"})");
    EXPECT_EQ(ask(R"({"getTimerLastStarted":"t"})"), started);
    const std::string elapsed = ask(R"({"getTimerElapsed":"t"})");
    EXPECT_TRUE(eventually([&] { return ask(R"({"getTimerElapsed":"t"})") != elapsed; }));
}

TEST_F(Denying, countersThatAreDeniedDoNotCount)
{
    start(rule("deny = \"counter\"\nkeys = \"c\""));
    post(R"({"setCounterValue":{"c":7}})");
    EXPECT_EQ(ask(R"({"incrementCounter":"c"})"), "{}");
    EXPECT_EQ(ask(R"({"getCounterValue":"c"})"), "0");
    EXPECT_EQ(ask(R"({"incrementCounter":"d"})"), "1");
}

TEST_F(Denying, theClockStaysAsItIs)
{
    start(rule("deny = \"time\""), {"--allow-set-time"});
    post(R"({"updateSystemTime":1})"); // without the rule it would be refused, too, as long past
    EXPECT_TRUE(isInLog("Denied time, by " + (folder / "policy") + ":1"));
    EXPECT_EQ(statistic("refused.systemTime"), 0U);
}

TEST_F(Denying, whatMayNotBeAskedForAnswersAsIfItDidNotExist)
{
    start(allOk);
    post(R"({"postStatus":{"a":"1","secret":"2"}})");
    post(R"({"setCounterValue":{"secret":7}})");
    post(R"({"startTimer":"secret"})");
    reload(rule("deny = \"query\"\nkeys = \"secret\""));
    ASSERT_TRUE(isInLog("Applied new limits, log level and policy"));
    EXPECT_EQ(ask(R"({"getClientInfoValue":"secret"})"), R"({"statusValue":""})");
    EXPECT_EQ(ask(R"({"getClientInfoValues":["a","secret"]})"), R"({"a":"1"})");
    EXPECT_EQ(all(), R"({"a":"1"})");
    EXPECT_EQ(ask(R"({"getCounterValue":"secret"})"), "0");
    EXPECT_EQ(ask(R"({"getTimerElapsed":"secret"})"), "0");
    EXPECT_EQ(ask(R"({"getTimerLastStarted":"secret"})"), "0");
}

TEST_F(Denying, whatMayNotBeSeenIsInNoAnswer)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    post(R"({"postStatus":{"a":"1","secret":"2"}})");
    EXPECT_EQ(ask(R"({"getClientInfoValue":"secret"})"), R"({"statusValue":""})");
    EXPECT_EQ(ask(R"({"getClientInfoValues":["a","secret"]})"), R"({"a":"1"})");
    EXPECT_EQ(all(), R"({"a":"1"})");
}

TEST_F(Denying, aLongAnswerLeavesOutWhatIsInTheMiddleOfIt)
{
    start(rule("deny = \"see\"\nkeys = \"k5*\""));
    std::string kept = "{";
    for (char digit = '0'; digit <= '9'; ++digit)
    {
        const std::string key = std::string("k") + digit;
        const std::string value(20000, digit);
        post(postOf(key, value));
        if (digit != '5')
            kept += (digit == '0' ? "\"" : ",\"") + key + "\":\"" + value + '"';
    }
    EXPECT_EQ(all(), kept + '}');
}

// ----------------------------------------------------------------------------------------------
// notifications

TEST_F(Denying, ofANotificationASubscriberGetsThePartThatItMaySee)
{
    start(rule("deny = \"see\"\nkeys = [\"secret\", \"s\\\"ecret\"]"));
    listen();
    post(R"({"postStatus":{"a":"1","s\"ecret":"3","secret":"2","z\n":"\u00e4"}})");
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1","z\n":"\u00e4"}})");
}

TEST_F(Denying, aNotificationOfWhichNothingIsLeftIsNotSent)
{
    start(rule("deny = \"see\"\nkeys = \"secret*\""));
    listen();
    post(postOf("secret", "1"));
    post(R"({"postEvent":{"secret.bell":"1"}})");
    post(R"({"postEvent":{"bell":"1"}})");
    EXPECT_EQ(next(), R"({"eventUpdate":{"bell":"1"}})");
}

TEST_F(Denying, aNotificationThatMayBeSeenIsSentAsItIs)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    listen();
    const std::string long2000(2000, 'x');
    post(R"({"postStatus":{"a":")" + long2000 + R"(","b":"\u0001"}})");
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":")" + long2000 + R"(","b":"\u0001"}})");
}

TEST_F(Denying, thePrefixOfASubscriptionStillCounts)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    listening.emplace(ZmtpPeer::notifyPort);
    ASSERT_TRUE(listening->shakeHands());
    ASSERT_TRUE(listening->write(ZmtpPeer::subscribe(R"({"eventUpdate)")));
    EXPECT_TRUE(eventually(
        [&]
        {
            post(R"({"postEvent":{"bell":"1"}})");
            return listening->readFrame(std::chrono::milliseconds(1)).has_value();
        }));
    post(postOf("a", "1"));
    post(R"({"postEvent":{"last":"1"}})");
    std::string text;
    while (text.find("last") == std::string::npos)
    {
        text = next();
        EXPECT_EQ(text.find("statusUpdate"), std::string::npos) << text;
        ASSERT_NE(text, "nothing");
    }
}

// Whether the prefix matches would depend on the value.
TEST_F(Denying, thePrefixOfASubscriptionTellsNothingOfWhatMayNotBeSeen)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    listening.emplace(ZmtpPeer::notifyPort);
    ASSERT_TRUE(listening->shakeHands());
    ASSERT_TRUE(listening->write(ZmtpPeer::subscribe(R"({"statusUpdate":{"secret":"h)") +
                                 ZmtpPeer::subscribe(R"({"statusUpdate":{"v)") +
                                 ZmtpPeer::subscribe("Sync")));
    awaitSync();
    post(R"({"postStatus":{"secret":"hunter","z":"1"}})");
    post(R"({"postStatus":{"secret":"other","visible":"1"}})");
    EXPECT_EQ(next(), R"({"statusUpdate":{"visible":"1"}})");
}

TEST_F(Denying, oneThatMaySeeNothingIsStillSentTheSync)
{
    start(rule("deny = \"see\""));
    listen();
    post(postOf("a", "1"));
    post(R"({"postEvent":{"bell":"1"}})");
    post("Sync");
    int heard = 0;
    while (const auto text = listening->receiveText(std::chrono::milliseconds(50)))
    {
        EXPECT_EQ(text, "Sync");
        ++heard;
    }
    EXPECT_GT(heard, 0);
}

// A client that starts receives what has changed since its first "Sync".
TEST_F(Denying, theFirstValuesOfASubscriberAreFilteredToo)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    post(R"({"postStatus":{"a":"1","secret":"2"}})"); // sent to all that subscribe soon after the start
    listening.emplace(ZmtpPeer::notifyPort);
    ASSERT_TRUE(listening->shakeHands());
    ASSERT_TRUE(listening->write(ZmtpPeer::subscribe("")));
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1"}})");
}

// ----------------------------------------------------------------------------------------------------- audit

TEST_F(Denying, inAuditModeEverythingIsDoneAndLogged)
{
    start("mode = \"audit\"\n" + rule("deny = \"all\""));
    listen();
    post(postOf("a", "1"));
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1"}})");
    EXPECT_EQ(ask(R"({"incrementCounter":"c"})"), "1");
    EXPECT_EQ(all(), R"({"a":"1"})");
    EXPECT_TRUE(isInLog("Would deny post of [a], by " + (folder / "policy") + ":2"));
    EXPECT_TRUE(isInLog("Would not show [a], see denied by " + (folder / "policy") + ":2"));
    EXPECT_TRUE(isInLog("is only logged, 1 rules"));
    EXPECT_GE(statistic("policy.audited"), 2U);
    EXPECT_GE(statistic("policy.auditedViews"), 2U);
    EXPECT_EQ(statistic("policy.denied"), 0U);
}

// ------------------------------------------------------------------------------------------------------
// owner

// Otherwise a client could end before its owner is known, and escape a rule about its user.
TEST_F(Denying, nothingIsTakenFromAClientThatHasGoneBeforeItsOwnerIsKnown)
{
    start(rule("deny = \"post\"\nkeys = \"secret\""));
    postAndGo();
    EXPECT_TRUE(eventually([&] { return statistic("policy.unknownOwners") == 1; }));
    EXPECT_EQ(all(), "{}");
    EXPECT_TRUE(isInLog("Refused a connection, the policy needs to know its owner: "));
}

// Without rules about particular clients, the owner of a connection does not matter.
TEST_F(Denying, underAPolicyForAnyoneAClientThatHasGoneIsServed)
{
    start("[[rule]]\ndeny = \"post\"\nkeys = \"secret\"");
    postAndGo();
    EXPECT_TRUE(eventually([&] { return all() == R"({"other":"1"})"; }));
}
