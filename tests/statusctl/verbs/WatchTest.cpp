// watch, with a real broker.

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

#include "statusctl/device/Change.h"
#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"

namespace
{

class WatchTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
};

// The next lines up to "synced".
Words upToSynced(TestProcess& watch)
{
    Words lines;
    do
        lines.push_back(nextLine(watch));
    while (lines.back() != "synced" && lines.back() != "(nothing)");
    return lines;
}

std::string kindAndName(const std::string& line)
{
    const std::optional<Change> change = readChange(line);
    return change ? nameOf(change->kind) + (" " + change->name) : "no change: " + line;
}

} // namespace

TEST_F(WatchTest, printsInitialValuesThenAMarkThenChanges)
{
    statusctl({"set", "door", "open", "other", "1"});
    TestProcess watch(commandOf({"watch", "door", "lamp"}));
    EXPECT_EQ(upToSynced(watch), (Words{"initial door open", "synced"}));
    statusctl({"set", "door", "shut"});
    EXPECT_EQ(nextLine(watch), "changed door shut");
    statusctl({"set", "lamp", "on\nor off"});
    EXPECT_EQ(nextLine(watch), "changed lamp on\\nor off");
    statusctl({"reset", "door"});
    EXPECT_EQ(nextLine(watch), "reset door ");
}

TEST_F(WatchTest, aNameCannotPassForNameAndValue)
{
    statusctl({"set", "door open", "1", "door\u00a0open", "2", "door\u2028x", "3"});
    TestProcess watch(commandOf({"watch"}));
    Words lines = upToSynced(watch);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (Words{"initial door\\x20open 1", "initial door\\xc2\\xa0open 2",
                            "initial door\\xe2\\x80\\xa8x 3", "synced"}));
}

TEST_F(WatchTest, linesBeginWithTheLocalTime)
{
    TestProcess watch(commandOf({"watch", "door"}));
    const std::string line = watch.readLine().value_or("");
    EXPECT_EQ(line.size(), std::string("2026-11-21T08:12:01.123+01:00 synced").size()) << line;
    EXPECT_EQ(line.substr(10, 1), "T");
}

TEST_F(WatchTest, aGlobTellsOfKeysThatAppearLater)
{
    statusctl({"set", "net.rx", "1"});
    TestProcess watch(commandOf({"watch", "net.*"}));
    EXPECT_EQ(upToSynced(watch), (Words{"initial net.rx 1", "synced"}));
    statusctl({"set", "net.tx", "2"});
    EXPECT_EQ(nextLine(watch), "changed net.tx 2");
    statusctl({"set", "disk", "3", "net.tx", "4"});
    EXPECT_EQ(nextLine(watch), "changed net.tx 4");
}

TEST_F(WatchTest, aKeyThatAppearsLaterIsToldOfWithEachOfItsValuesInOrder)
{
    TestProcess watch(commandOf({"watch", "net.*"}));
    EXPECT_EQ(upToSynced(watch), (Words{"synced"}));
    TestProcess replay(commandOf({"replay", "--speed", "0", "-"}));
    constexpr int changes = 200;
    for (int number = 1; number <= changes; ++number)
        replay.writeLine(
            R"({"time":"2026-11-21T08:00:00.000000Z","kind":"changed","name":"net.n","value":")" +
            std::to_string(number) + "\"}");
    replay.closeInput();
    for (int number = 1; number <= changes; ++number)
        ASSERT_EQ(nextLine(watch), "changed net.n " + std::to_string(number));
}

TEST_F(WatchTest, aKeyThatAppearsAtTheMomentOfTheStartIsNotMissed)
{
    for (int round = 0; round < 10; ++round)
    {
        const std::string key = "net." + std::to_string(round);
        TestProcess watch(commandOf({"watch", "net.*"}));
        TestProcess set(commandOf({"set", key, "x"}));
        std::string line;
        do
            line = nextLine(watch);
        while (line != "(nothing)" && line.find(key) == std::string::npos);
        EXPECT_NE(line, "(nothing)") << "round " << round;
        EXPECT_EQ(set.waitForExit(), 0);
    }
}

TEST_F(WatchTest, eventsAreWatchedByNameAndGlob)
{
    TestProcess watch(commandOf({"watch", "--event", "bell", "--event", "alarm.*"}));
    EXPECT_EQ(upToSynced(watch), (Words{"synced"}));
    // The second subscription, which the glob needs, may take a little longer.
    ASSERT_TRUE(eventually(
        [&]
        {
            statusctl({"event", "alarm.fire", "now"});
            return watch.readLine(std::chrono::milliseconds(200)).has_value();
        }));
    statusctl({"event", "other"});
    statusctl({"event", "bell", "rang"});
    std::string line;
    do
        line = nextLine(watch);
    while (line == "event alarm.fire now");
    EXPECT_EQ(line, "event bell rang");
}

TEST_F(WatchTest, updatesOnlyLeavesOutTheInitialValuesAndTheMark)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf({"watch", "--updates", "-n", "1", "door"}));
    ASSERT_TRUE(eventually(
        [&]
        {
            statusctl({"set", "door", "shut"});
            statusctl({"set", "door", "ajar"});
            return watch.waitForExit(std::chrono::milliseconds(100)).has_value();
        }));
    EXPECT_EQ(nextLine(watch).rfind("changed door", 0), 0U);
    EXPECT_EQ(watch.readRest(), "");
}

TEST_F(WatchTest, leavesAfterSoManyChanges)
{
    TestProcess watch(commandOf({"watch", "-n", "2", "door"}));
    EXPECT_EQ(upToSynced(watch), (Words{"synced"}));
    statusctl({"set", "door", "1"});
    statusctl({"set", "door", "2"});
    EXPECT_EQ(watch.waitForExit(), 0);
    EXPECT_EQ(nextLine(watch), "changed door 1");
    EXPECT_EQ(nextLine(watch), "changed door 2");
    EXPECT_EQ(watch.readRest(), "");
}

TEST_F(WatchTest, jsonIsOneObjectALineEvenWhenPretty)
{
    statusctl({"set", "door", "open"});
    for (const char* style : {"--json", "--json=pretty"})
    {
        TestProcess watch(commandOf({"watch", style, "door"}));
        EXPECT_EQ(kindAndName(watch.readLine().value_or("")), "initial door");
        EXPECT_EQ(kindAndName(watch.readLine().value_or("")), "synced ");
    }
}

TEST_F(WatchTest, runsACommandForEachLineWithTheChangeInItsEnvironment)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf({"-q", "watch", "-n", "1", "door", "--", "/bin/sh", "-c",
                                 "echo \"$STATUS_KIND:$STATUS_KEY:$STATUS_VALUE\""}));
    EXPECT_EQ(watch.readLine(), "initial:door:open");
    statusctl({"set", "door", "$(shut) `now`"});
    EXPECT_EQ(watch.readLine(), "changed:door:$(shut) `now`");
    EXPECT_EQ(watch.waitForExit(), 0);
}

TEST_F(WatchTest, aCommandThatCannotBeStartedIsAFailure)
{
    statusctl({"set", "door", "open"});
    EXPECT_EQ(statusctl({"-q", "watch", "door", "--", "/none/such"}),
              failure(1, "statusctl: watch: cannot run \"/none/such\": No such file or directory"));
}

TEST_F(WatchTest, theCommandCanBeInterrupted)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(
        commandOf({"-q", "watch", "-n", "1", "door", "--", "/bin/sh", "-c", "kill -TERM $$; echo lives"}));
    statusctl({"set", "door", "shut"});
    ASSERT_TRUE(eventually(
        [&]
        {
            statusctl({"set", "door", "1"});
            statusctl({"set", "door", "2"});
            return watch.waitForExit(std::chrono::milliseconds(100)).has_value();
        }));
    EXPECT_EQ(watch.readRest(), "") << "the command inherited blocked signals";
}

TEST_F(WatchTest, aFormatSaysWhatALineHolds)
{
    statusctl({"set", "door", "a\nb"});
    TestProcess watch(commandOf({"watch", "door", "--format", "%k is \"%v\" (%w) 100%%"}));
    EXPECT_EQ(watch.readLine(), "door is \"a\\nb\" (initial) 100%");
    EXPECT_EQ(watch.readLine(), " is \"\" (synced) 100%");
    TestProcess timed(commandOf({"watch", "door", "--format", "%t"}));
    EXPECT_EQ(timed.readLine().value_or("").size(), std::string("2026-11-21T08:12:01.123+01:00").size());
}

TEST_F(WatchTest, aFormatThatDoesNotSayWhatItIsLeavesOutTheMarks)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf({"watch", "-n", "1", "door", "--format", "%k=%v"}));
    EXPECT_EQ(watch.readLine(), "door=open");
    TestProcess all(commandOf({"watch", "door"})); // prints "synced"
    upToSynced(all);
    ASSERT_TRUE(eventually(
        [&]
        {
            statusctl({"set", "door", "shut"});
            return watch.waitForExit(std::chrono::milliseconds(100)).has_value();
        }));
    EXPECT_EQ(watch.readRest(), "door=shut\n");
}

TEST_F(WatchTest, aFieldThatIsUnknownIsRefused)
{
    for (const char* field : {"%x", "%"})
        EXPECT_EQ(statusctl({"-t", "5", "watch", "--format", std::string("%k ") + field}),
                  failure(2, std::string("statusctl: watch: unknown field \"") + field +
                                 "\" in --format; use %t, %w, %k, %v or %%"));
}

TEST_F(WatchTest, rawTextsArePrintedByteForByte)
{
    statusctl({"set", "door x", "a\tb\u202e"});
    TestProcess watch(commandOf({"watch", "--raw", "--format", "%k=%v", "door x"}));
    EXPECT_EQ(watch.readLine(), "door x=a\tb\u202e");
    TestProcess plain(commandOf({"watch", "--raw", "door x"}));
    EXPECT_EQ(nextLine(plain), "initial door x a\tb\u202e");
}

TEST_F(WatchTest, jsonHasItsOwnForm)
{
    for (const Words& words : std::vector<Words>{{"-j", "-t", "5", "watch", "--raw"},
                                                 {"-j", "-t", "5", "watch", "--format", "%k"}})
        EXPECT_EQ(statusctl(words).code, 2);
}

TEST_F(WatchTest, onlyEventsLeavesOutTheValues)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf({"watch", "--only", "event"}));
    EXPECT_EQ(nextLine(watch), "synced");
    ASSERT_TRUE(eventually(
        [&]
        {
            statusctl({"set", "door", "shut"});
            statusctl({"set", "door", "ajar"});
            statusctl({"event", "bell", "rang"});
            const std::optional<std::string> line = watch.readLine(std::chrono::milliseconds(200));
            EXPECT_EQ(withoutTime(line.value_or("t event bell rang")), "event bell rang");
            return line.has_value();
        }));
}

TEST_F(WatchTest, onlyStatusLeavesOutTheEvents)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf({"watch", "--only", "status"}));
    EXPECT_EQ(upToSynced(watch), (Words{"initial door open", "synced"}));
    statusctl({"event", "bell", "rang"});
    statusctl({"set", "door", "shut"});
    EXPECT_EQ(nextLine(watch), "changed door shut");
    EXPECT_EQ(statusctl({"watch", "--only", "status", "--event", "bell"}).code, 2);
    EXPECT_EQ(statusctl({"watch", "--only", "event", "door"}).code, 2);
    EXPECT_EQ(statusctl({"watch", "--only", "some"}).code, 2);
}

TEST_F(WatchTest, aTimeOutIsExitCode124)
{
    EXPECT_EQ(statusctl({"-t", "1s", "-q", "watch", "door"}),
              failure(124, "statusctl: watch: timed out after 1s"));
}

TEST_F(WatchTest, aTimeOutDoesNotWaitForTheCommand)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf(
        {"-t", "300ms", "watch", "door", "--", "/bin/sh", "-c", "exec >/dev/null 2>&1; exec sleep 60"}));
    EXPECT_EQ(watch.waitForExit(allowed(std::chrono::seconds(10))), 124);
    EXPECT_EQ(watch.errors(), "statusctl: watch: timed out after 300ms\n");
}

TEST_F(WatchTest, aReaderThatHasGoneEndsItSilently)
{
    TestProcess watch(commandOf({"watch", "door"}));
    EXPECT_EQ(upToSynced(watch), (Words{"synced"}));
    watch.closeOutput();
    statusctl({"set", "door", "1"});
    EXPECT_EQ(watch.waitForExit(), 128 + SIGPIPE);
    EXPECT_EQ(watch.errors(), "");
}

TEST_F(WatchTest, anInterruptEndsItAlsoInTheBackground)
{
    for (const int signal : {SIGINT, SIGQUIT})
    {
        TestProcess watch(inBackground({"watch", "door"}));
        EXPECT_EQ(upToSynced(watch), (Words{"synced"}));
        watch.signal(signal);
        EXPECT_EQ(watch.waitForExit(), 128 + signal);
    }
}

TEST_F(WatchTest, anInterruptEndsItWithItsSignal)
{
    TestProcess watch(commandOf({"watch", "door"}));
    EXPECT_EQ(upToSynced(watch), (Words{"synced"}));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.waitForExit(), 128 + SIGINT);
    EXPECT_EQ(watch.errors(), "");
}
