// watch, wait and record, when the broker dies and comes back.

#include <csignal>
#include <gtest/gtest.h>
#include <optional>
#include <set>

#include "statusctl/device/Change.h"
#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class ComebackTest : public testing::Test
{
protected:
    ComebackTest() { start(); }

    void start() { mBroker.emplace(Words{"--state", mFolder / "state"}); }
    void kill() { mBroker->kill(); }

    // Starts a broker without any values.
    void startAnew() { mBroker.emplace(Words{}); }

    TemporaryFolder mFolder;
    std::optional<BrokerProcess> mBroker;
};

// The lines up to the next "synced". The differing values come in any order.
std::multiset<std::string> upToSynced(TestProcess& watch)
{
    std::multiset<std::string> lines;
    for (std::string line = nextLine(watch); line != "synced"; line = nextLine(watch))
    {
        lines.insert(line);
        if (line == "(nothing)")
            break;
    }
    return lines;
}

std::multiset<std::string> lines(std::initializer_list<std::string> texts)
{
    return texts;
}

} // namespace

TEST_F(ComebackTest, theBrokersEndIsToldAtOnce)
{
    TestProcess watch(commandOf({"watch", "door"}));
    EXPECT_EQ(nextLine(watch), "synced");
    kill();
    EXPECT_EQ(nextLine(watch), "lost");
}

TEST_F(ComebackTest, whereNothingHasChangedOnlyTheMarksAreTold)
{
    statusctl({"set", "door", "open", "empty", ""});
    TestProcess watch(commandOf({"watch"}));
    EXPECT_EQ(upToSynced(watch), lines({"initial door open", "initial empty "}));
    for (int round = 0; round < 3; ++round)
    {
        kill();
        EXPECT_EQ(nextLine(watch), "lost");
        start();
        EXPECT_EQ(nextLine(watch), "synced");
    }
    statusctl({"set", "door", "shut"});
    EXPECT_EQ(nextLine(watch), "changed door shut");
}

TEST_F(ComebackTest, theValuesThatDifferAreToldBeforeTheMark)
{
    statusctl({"set", "door", "open", "lamp", "on", "fan", "off"});
    TestProcess watch(commandOf({"watch", "door", "lamp", "fan", "bell"}));
    EXPECT_EQ(upToSynced(watch), lines({"initial door open", "initial lamp on", "initial fan off"}));
    kill();
    EXPECT_EQ(nextLine(watch), "lost");
    watch.suspend();
    start();
    statusctl({"set", "door", "shut", "bell", "rang", "other", "1"});
    statusctl({"reset", "lamp"});
    watch.signal(SIGCONT);
    EXPECT_EQ(upToSynced(watch), lines({"changed door shut", "changed bell rang", "reset lamp "}));
}

TEST_F(ComebackTest, keysThatTheNewBrokerDoesNotHaveAreGone)
{
    statusctl({"set", "door", "open", "net.rx", "1", "net.tx", ""});
    for (const Words& keys :
         std::vector<Words>{{"watch", "door", "net.rx", "net.tx"}, {"watch", "door", "net.*"}})
    {
        TestProcess watch(commandOf(keys));
        EXPECT_EQ(upToSynced(watch), lines({"initial door open", "initial net.rx 1", "initial net.tx "}));
        kill();
        EXPECT_EQ(nextLine(watch), "lost");
        startAnew();
        EXPECT_EQ(upToSynced(watch), lines({"gone door ", "gone net.rx ", "gone net.tx "}));
        statusctl({"set", "door", "open"});
        EXPECT_EQ(nextLine(watch), "changed door open") << "its old value counts as a change now";
        kill();
        start();
    }
}

TEST_F(ComebackTest, keysThatMatchAGlobAndHaveComeMeanwhileAreTold)
{
    TestProcess watch(commandOf({"watch", "net.*"}));
    EXPECT_EQ(nextLine(watch), "synced");
    kill();
    EXPECT_EQ(nextLine(watch), "lost");
    watch.suspend();
    start();
    statusctl({"set", "net.rx", "1", "disk", "2"});
    watch.signal(SIGCONT);
    EXPECT_EQ(nextLine(watch), "changed net.rx 1");
    EXPECT_EQ(nextLine(watch), "synced");
    statusctl({"set", "net.rx", "2"});
    EXPECT_EQ(nextLine(watch), "changed net.rx 2");
}

TEST_F(ComebackTest, eventsAreHeardAgainAfterTheMark)
{
    TestProcess watch(commandOf({"watch", "--event", "bell"}));
    EXPECT_EQ(nextLine(watch), "synced");
    kill();
    EXPECT_EQ(nextLine(watch), "lost");
    start();
    EXPECT_EQ(nextLine(watch), "synced");
    ASSERT_TRUE(eventually(
        [&]
        {
            statusctl({"event", "bell", "rang"});
            return watch.readLine(std::chrono::milliseconds(200)).has_value();
        }));
}

TEST_F(ComebackTest, jsonHasTheSameKinds)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf({"-j", "watch", "door"}));
    const auto nextKind = [&]
    {
        const std::optional<Change> change = readChange(watch.readLine().value_or(""));
        return change ? nameOf(change->kind) + (" " + change->name) : "(nothing)";
    };
    EXPECT_EQ(nextKind(), "initial door");
    EXPECT_EQ(nextKind(), "synced ");
    kill();
    EXPECT_EQ(nextKind(), "lost ");
    startAnew();
    EXPECT_EQ(nextKind(), "gone door");
    EXPECT_EQ(nextKind(), "synced ");
}

TEST_F(ComebackTest, theMarksAreToldAmongUpdates)
{
    TestProcess watch(commandOf({"watch", "--updates", "door"}));
    ASSERT_TRUE(eventually( // until the key exists
        [&]
        {
            statusctl({"set", "door", "1"});
            statusctl({"set", "door", "2"});
            return watch.readLine(std::chrono::milliseconds(100)).has_value();
        }));
    statusctl({"set", "door", "last"});
    std::string line;
    do
        line = nextLine(watch);
    while (line != "changed door last" && line != "(nothing)");
    kill();
    EXPECT_EQ(nextLine(watch), "lost");
    start();
    EXPECT_EQ(nextLine(watch), "synced");
}

TEST_F(ComebackTest, theMarksAreNotCounted)
{
    TestProcess watch(commandOf({"watch", "-n", "1", "door"}));
    EXPECT_EQ(nextLine(watch), "synced");
    kill();
    EXPECT_EQ(nextLine(watch), "lost");
    start();
    EXPECT_EQ(nextLine(watch), "synced");
    statusctl({"set", "door", "open"});
    EXPECT_EQ(nextLine(watch), "changed door open");
    EXPECT_EQ(watch.waitForExit(), 0);
}

TEST_F(ComebackTest, aCommandIsRunForWhatIsGoneAndNotForTheMarks)
{
    statusctl({"set", "door", "open"});
    TestProcess watch(commandOf(
        {"-q", "watch", "-n", "1", "door", "--", "/bin/sh", "-c", "echo \"$STATUS_KIND:$STATUS_KEY\""}));
    EXPECT_EQ(watch.readLine(), "initial:door");
    TestProcess shown(commandOf({"watch", "door"}));
    upToSynced(shown);
    kill();
    EXPECT_EQ(nextLine(shown), "lost");
    startAnew();
    EXPECT_EQ(watch.readLine(), "gone:door");
    EXPECT_EQ(watch.waitForExit(), 0);
}

TEST_F(ComebackTest, waitDoesNotTakeLostValuesForThere)
{
    statusctl({"set", "a", "1"});
    TestProcess wait(commandOf({"wait", "a=1", "b=1"}));
    TestProcess watch(commandOf({"watch", "a", "b"})); // shows that both have noticed
    EXPECT_EQ(upToSynced(watch), lines({"initial a 1"}));
    EXPECT_EQ(wait.waitForExit(std::chrono::milliseconds(200)), std::nullopt);
    kill();
    EXPECT_EQ(nextLine(watch), "lost");
    startAnew();
    EXPECT_EQ(upToSynced(watch), lines({"gone a "}));
    statusctl({"set", "b", "1"});
    EXPECT_EQ(nextLine(watch), "changed b 1");
    EXPECT_EQ(wait.waitForExit(std::chrono::milliseconds(300)), std::nullopt);
    statusctl({"set", "a", "1"});
    EXPECT_EQ(wait.waitForExit(), 0);
    EXPECT_EQ(wait.readRest(), "a=1\nb=1\n");
}

TEST_F(ComebackTest, aRecordingHoldsTheMarksAndItsReplayPostsAResetForWhatIsGone)
{
    const std::string file = mFolder / "recording.jsonl";
    const auto isRecorded = [&](const std::string& text)
    { return eventually([&] { return readFile(file).find(text) != std::string::npos; }); };
    statusctl({"set", "door", "open"});
    TestProcess record(commandOf({"record", file, "door"}));
    ASSERT_TRUE(isRecorded("synced"));
    kill();
    ASSERT_TRUE(isRecorded("lost"));
    startAnew();
    ASSERT_TRUE(isRecorded("gone"));
    record.signal(SIGTERM);
    EXPECT_EQ(record.waitForExit(), 128 + SIGTERM);
    EXPECT_EQ(statusctl({"replay", "--speed", "0", file}), success("2\n"));
    EXPECT_EQ(statusctl({"get", "door"}), success("\n"));
}
