// The real broker lists timers and counters, and accepts readings of timers.

#include <algorithm>
#include <gtest/gtest.h>

#include "tests/broker/PolicedBroker.h"

namespace
{

class MeasureLists : public PolicedBroker
{
protected:
    std::string timers() { return ask(R"({"getTimers":"null"})"); }
    std::string counters() { return ask(R"({"getCounters":"null"})"); }

    // Starts a broker with a state file.
    void startWithFile() { start(allOk, {"--state", folder / "state"}); }
};

} // namespace

TEST_F(MeasureLists, haveEachWithWhatItHas)
{
    start(allOk);
    EXPECT_EQ(counters(), R"({"counters":{}})");
    EXPECT_EQ(timers(), R"({"timers":{}})");
    post(R"({"setCounterValue":{"starts":4294967295}})");
    ask(R"({"incrementCounter":"faults"})");
    post(R"({"stopTimer":"boot"})");
    EXPECT_EQ(counters(), R"({"counters":{"faults":1,"starts":4294967295}})");
    EXPECT_EQ(timers(), R"({"timers":{"boot":{"elapsed":0,"lastStarted":0,"running":0}}})");
    post(R"({"startTimer":"boot"})");
    EXPECT_NE(timers().find(R"("running":1)"), std::string::npos);
}

TEST_F(MeasureLists, leaveOutNamesThatTheClientMayNotAskFor)
{
    start(allOk);
    for (const std::string name : {"a", "secret", "z"})
    {
        post(R"({"stopTimer":")" + name + "\"}");
        post(R"({"setCounterValue":{")" + name + "\":1}}");
    }
    reload(rule("deny = \"query\"\nkeys = \"secret\""));
    ASSERT_TRUE(isInLog("Applied new limits, log level and policy"));
    EXPECT_EQ(counters(), R"({"counters":{"a":1,"z":1}})");
    EXPECT_EQ(timers().find("secret"), std::string::npos);
    EXPECT_NE(timers().find(R"("z":)"), std::string::npos);
}

// Like requests for single names: only values and events can be hidden.
TEST_F(MeasureLists, haveNamesThatTheClientMayAskForAndNotSee)
{
    start(rule("deny = \"see\"\nkeys = \"a\""));
    post(R"({"setCounterValue":{"a":1}})");
    EXPECT_EQ(ask(R"({"getCounterValue":"a"})"), "1");
    EXPECT_EQ(counters(), R"({"counters":{"a":1}})");
}

TEST_F(MeasureLists, areLoggedWhereAPolicyOnlyLogs)
{
    start("mode = \"audit\"\n" + rule("deny = \"query\"\nkeys = \"secret\""));
    post(R"({"setCounterValue":{"secret":1}})");
    EXPECT_EQ(counters(), R"({"counters":{"secret":1}})");
    EXPECT_TRUE(isInLog("Would not show [secret], query denied by "));
    EXPECT_EQ(statistic("policy.auditedViews"), 1U);
}

TEST_F(MeasureLists, tellAlsoOfMoreThanAConnectionHolds)
{
    start(allOk, {"--max-counters", "20000"});
    for (int number = 0; number < 2000; ++number)
        ask(R"({"incrementCounter":")" + std::string(200, 'c') + std::to_string(number) + "\"}");
    const std::string text = counters();
    EXPECT_GT(text.size(), std::size_t{400} * 1024);
    EXPECT_EQ(text.substr(text.size() - 4), ":1}}");
    EXPECT_EQ(std::count(text.begin(), text.end(), ':'), 2001);
}

// ---- setTimer

TEST_F(MeasureLists, ofATimerThatWasSetHaveWhatItWasGiven)
{
    start(allOk);
    EXPECT_EQ(ask(R"({"setTimer":["boot","5000000","1700000000000000","stopped"]})"), "5000000");
    EXPECT_EQ(timers(),
              R"({"timers":{"boot":{"elapsed":5000000,"lastStarted":1700000000000000,"running":0}}})");
    ask(R"({"setTimer":["boot","7000000","1700000000000000","running"]})");
    EXPECT_GE(std::stoull(ask(R"({"getTimerElapsed":"boot"})")), 7000000U);
    EXPECT_NE(timers().find(R"("lastStarted":1700000000000000,"running":1)"), std::string::npos);
    EXPECT_TRUE(eventually([&] { return ask(R"({"getTimerElapsed":"boot"})") != "7000000"; }));
}

TEST_F(MeasureLists, ofATimerThatWasSetAreTheSameAfterAKill)
{
    startWithFile();
    ask(R"({"setTimer":["boot","4503599627370496","1700000000000000","stopped"]})"); // the largest value
    const std::string before = timers();
    broker->kill();
    startWithFile();
    EXPECT_EQ(timers(), before);
    EXPECT_EQ(ask(R"({"getTimerElapsed":"boot"})"), "4503599627370496");
}

TEST_F(MeasureLists, doNotHaveATimerThatMayNotBeSet)
{
    start(rule("deny = \"timer\"\nkeys = \"boot\""));
    EXPECT_EQ(ask(R"({"setTimer":["boot","5","0","stopped"]})"), "{}");
    EXPECT_EQ(statistic("policy.denied"), 1U);
    EXPECT_EQ(timers(), R"({"timers":{}})");
}

TEST_F(MeasureLists, doNotHaveATimerBeyondTheLimit)
{
    start(allOk, {"--max-timers", "1"});
    EXPECT_EQ(ask(R"({"setTimer":["a","5","0","stopped"]})"), "5");
    EXPECT_EQ(ask(R"({"setTimer":["b","5","0","stopped"]})"), "{}");
    EXPECT_EQ(statistic("limit.timers"), 1U);
}

TEST_F(MeasureLists, doNotHaveATimerThatCannotBeUnderstood)
{
    start(allOk);
    const std::string bad[] = {R"()",
                               R"("boot")",
                               R"("boot","1","0")",
                               R"("boot","-1","0","stopped")",
                               R"("boot","x","0","stopped")",
                               R"("boot","1","","stopped")",
                               R"("boot","1","0","stands")",
                               R"("boot","4503599627370497","0","stopped")",
                               R"("boot","1","4503599627370497","stopped")",
                               R"("boot","1","0","stopped","")"};
    for (const std::string& texts : bad)
        EXPECT_EQ(ask(R"({"setTimer":[)" + texts + "]}"), "{}") << texts;
    EXPECT_EQ(statistic("malformed.requests"), std::size(bad));
    EXPECT_EQ(timers(), R"({"timers":{}})");
}
