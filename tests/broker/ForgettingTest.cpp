// Names that the real broker forgets.

#include <csignal>

#include "tests/broker/PolicedBroker.h"

namespace
{

class ForgettingTest : public PolicedBroker
{
protected:
    void serveWith(const std::vector<std::string>& options = {}) { start(allOk, options); }

    // Starts a new broker with the state of the last.
    void restart(bool isKilled)
    {
        if (isKilled)
            broker->kill();
        else
            EXPECT_EQ(broker->stop(), 0);
        broker.reset();
        asking.reset();
        posting.reset();
        serveWith({"--state", folder / "state"});
    }

    void expectGoneAfterARestart(bool isKilled)
    {
        serveWith({"--state", folder / "state"});
        post(R"({"postStatus":{"a":"1","b":"1","back":"1"}})");
        post(R"({"startTimer":"t"})");
        post(R"({"setCounterValue":{"c":7}})");
        EXPECT_EQ(ask(R"({"forgetStatus":["a","back"]})"), R"({"forgotten":["a","back"]})");
        EXPECT_EQ(ask(R"({"forgetTimers":["t"]})"), R"({"forgotten":["t"]})");
        EXPECT_EQ(ask(R"({"forgetCounters":["c"]})"), R"({"forgotten":["c"]})");
        post(R"({"postStatus":{"back":"2"}})");
        restart(isKilled);
        EXPECT_EQ(all(), R"({"b":"1","back":"2"})");
        EXPECT_EQ(statistic("stored.keys"), 2U);
        EXPECT_EQ(statistic("stored.timers"), 0U);
        EXPECT_EQ(statistic("stored.counters"), 0U);
    }
};

} // namespace

TEST_F(ForgettingTest, theAnswerNamesWhatWasThereAndIsGone)
{
    serveWith();
    post(R"({"postStatus":{"a":"1","b":"2","c":""}})");
    EXPECT_EQ(ask(R"({"forgetStatus":["c","unknown","a","c"]})"), R"({"forgotten":["c","a"]})");
    EXPECT_EQ(all(), R"({"b":"2"})");
    EXPECT_EQ(ask(R"({"getClientInfoValue":"a"})"), R"({"statusValue":""})");
    EXPECT_EQ(ask(R"({"getClientInfoValues":["a","b"]})"), R"({"b":"2"})");
    EXPECT_EQ(ask(R"({"forgetStatus":["a","c"]})"), R"({"forgotten":[]})");
    EXPECT_EQ(ask(R"({"forgetStatus":[]})"), R"({"forgotten":[]})");
}

TEST_F(ForgettingTest, timersAndCountersAreForgottenApartFromValues)
{
    serveWith();
    post(R"({"postStatus":{"n":"1"}})");
    post(R"({"startTimer":"n"})");
    post(R"({"setCounterValue":{"n":7}})");
    EXPECT_EQ(ask(R"({"forgetTimers":["n","m"]})"), R"({"forgotten":["n"]})");
    EXPECT_EQ(ask(R"({"getTimerLastStarted":"n"})"), "0");
    EXPECT_EQ(ask(R"({"getCounterValue":"n"})"), "7");
    EXPECT_EQ(ask(R"({"forgetCounters":["n","m"]})"), R"({"forgotten":["n"]})");
    EXPECT_EQ(ask(R"({"getCounterValue":"n"})"), "0");
    EXPECT_EQ(all(), R"({"n":"1"})");
}

TEST_F(ForgettingTest, anythingElseIsRefused)
{
    serveWith();
    for (const char* request : {R"({"forgetStatus":"a"})", R"({"forgetTimers":{"a":"1"}})",
                                R"({"forgetCounters":[1]})", R"({"forget":["a"]})"})
        EXPECT_EQ(ask(request), "{}") << request;
}

TEST_F(ForgettingTest, requestsAreCountedAndSoIsWhatIsLeft)
{
    serveWith();
    post(R"({"postStatus":{"a":"1","b":"2"}})");
    ask(R"({"forgetStatus":["a"]})");
    EXPECT_EQ(statistic("requests.forgetStatus"), 1U);
    EXPECT_EQ(statistic("stored.keys"), 1U);
    EXPECT_EQ(statistic("stored.bytes"), 2U);
    EXPECT_EQ(statistic("stored.forgotten"), 1U) << "a client of an earlier broker may come back";
}

TEST_F(ForgettingTest, eachSubscriberIsToldOfTheResetOnce)
{
    serveWith();
    post(R"({"postStatus":{"a":"1","b":"2","c":""}})");
    listen();
    ZmtpPeer other(ZmtpPeer::notifyPort);
    ASSERT_TRUE(other.shakeHands());
    ASSERT_TRUE(other.write(ZmtpPeer::subscribe(R"({"statusUpdate)")));
    for (const char* first : {R"("a":"1")", R"("b":"2")", R"("c":"")"}) // singly, as its filter takes some
        EXPECT_EQ(other.receiveText(), std::string(R"({"statusUpdate":{)") + first + "}}");
    EXPECT_EQ(ask(R"({"forgetStatus":["b","a","c","d"]})"), R"({"forgotten":["b","a","c"]})");
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"","b":""}})");
    EXPECT_EQ(other.receiveText(), R"({"statusUpdate":{"a":"","b":""}})");
    ask(R"({"forgetStatus":["a","b"]})");
    post(R"({"postStatus":{"a":"3"}})");
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"3"}})");
}

TEST_F(ForgettingTest, aSubscriberThatHasFallenBehindIsToldWhenItReadsAgain)
{
    serveWith({"--max-notify-bytes=128K"});
    post(R"({"postStatus":{"a":"1"}})");
    constexpr int smallBuffer = 16 * 1024;
    listening.emplace(ZmtpPeer::notifyPort, smallBuffer);
    ASSERT_TRUE(listening->shakeHands());
    ASSERT_TRUE(listening->write(ZmtpPeer::subscribe("")));
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"1"}})");
    for (int number = 0; statistic("subscribers.fallenBehind") == 0; ++number)
        post(postOf("much", std::to_string(number) + std::string(60000, 'x')));
    EXPECT_EQ(ask(R"({"forgetStatus":["a"]})"), R"({"forgotten":["a"]})");
    post(postOf("last", "1"));
    bool isTold = false;
    for (std::string text; text != "nothing" && text.find(R"("last":"1")") == std::string::npos;)
    {
        text = next();
        isTold = isTold || text.find(R"("a":"")") != std::string::npos;
    }
    EXPECT_TRUE(isTold);
}

TEST_F(ForgettingTest, aClientOfAnEarlierBrokerThatComesBackIsTold)
{
    serveWith({"--state", folder / "state"});
    post(R"({"postStatus":{"a":"1","b":"1"}})");
    restart(true);
    EXPECT_EQ(ask(R"({"forgetStatus":["a"]})"), R"({"forgotten":["a"]})");
    listening.emplace(ZmtpPeer::notifyPort);
    ASSERT_TRUE(listening->shakeHands());
    ASSERT_TRUE(listening->write(ZmtpPeer::subscribe("")));
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":"","b":"1"}})");
}

TEST_F(ForgettingTest, theNamesAreGoneAfterARestart)
{
    expectGoneAfterARestart(false);
}

TEST_F(ForgettingTest, theNamesAreGoneAfterAKill)
{
    expectGoneAfterARestart(true);
}

TEST_F(ForgettingTest, itIsDroppedWhenNoClientOfAnEarlierBrokerCanComeBack)
{
    constexpr std::chrono::seconds comingBack{30};
    serveWith();
    post(postOf("a", "1"));
    ask(R"({"forgetStatus":["a"]})");
    EXPECT_TRUE(eventually([this] { return statistic("stored.forgotten") == 0; }, comingBack + testDeadline));
}

TEST_F(ForgettingTest, namesThatWaitForTheStateFileAreBounded)
{
    serveWith({"--state", folder / "nowhere/state", "--max-keys=1", "--max-timers=1", "--max-counters=1"});
    for (int number = 0; number < 4; ++number)
    {
        const std::string name = std::to_string(number);
        post(R"({"setCounterValue":{")" + name + "\":7}}");
        const std::string gone = number < 3 ? '"' + name + '"' : "";
        EXPECT_EQ(ask(R"({"forgetCounters":[")" + name + "\"]}"), R"({"forgotten":[)" + gone + "]}");
    }
    EXPECT_EQ(ask(R"({"getCounterValue":"3"})"), "7");
    EXPECT_EQ(statistic("limit.memory"), 1U);
    EXPECT_TRUE(isInLog("Forgetting names refused: too many wait for the state file to be written"));
}

// ---- The policy.

TEST_F(ForgettingTest, whatMayNotBeForgottenStaysAndIsNotInTheAnswer)
{
    start(rule("deny = \"forget\"\nkeys = \"kept.*\""));
    for (const std::string name : {"kept.n", "n"})
    {
        post(postOf(name, "1"));
        post(R"({"startTimer":")" + name + "\"}");
        post(R"({"setCounterValue":{")" + name + "\":7}}");
    }
    for (const std::string kind : {"Status", "Timers", "Counters"})
        EXPECT_EQ(ask(R"({"forget)" + kind + R"(":["kept.n","n"]})"), R"({"forgotten":["n"]})") << kind;
    EXPECT_EQ(all(), R"({"kept.n":"1"})");
    EXPECT_NE(ask(R"({"getTimerLastStarted":"kept.n"})"), "0");
    EXPECT_EQ(ask(R"({"getCounterValue":"kept.n"})"), "7");
    EXPECT_EQ(statistic("policy.denied"), 3U);
    EXPECT_TRUE(isInLog("Denied forget of [kept.n], by " + (folder / "policy") + ":1"));
}

TEST_F(ForgettingTest, theRightToPostOrToResetIsNoRightToForget)
{
    start("default = \"deny\"\n" +
          rule("allow = [\"post\", \"reset\", \"query\", \"see\", \"timer\", \"counter\"]\nkeys = \"*\""));
    post(postOf("a", "1"));
    EXPECT_EQ(ask(R"({"forgetStatus":["a"]})"), R"({"forgotten":[]})");
    EXPECT_EQ(all(), R"({"a":"1"})");
}

TEST_F(ForgettingTest, aSubscriberThatMayNotSeeTheKeyIsNotTold)
{
    start(rule("deny = \"see\"\nkeys = \"secret\""));
    post(R"({"postStatus":{"a":"1","secret":"1"}})");
    listen();
    EXPECT_EQ(ask(R"({"forgetStatus":["a","secret"]})"), R"({"forgotten":["a","secret"]})");
    EXPECT_EQ(next(), R"({"statusUpdate":{"a":""}})");
}
