// record and replay, with a real broker.

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <sstream>

#include "statusctl/device/Change.h"
#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class RecordingTest : public testing::Test
{
protected:
    // "changed door open" for each line, without the initial values.
    Words recorded() const
    {
        Words lines;
        std::istringstream file(readFile(mFile));
        for (std::string line; std::getline(file, line);)
        {
            const std::optional<Change> change = readChange(line);
            if (!change)
                lines.push_back("no change: " + line);
            else if (isUpdate(change->kind))
                lines.push_back(nameOf(change->kind) + (" " + change->name) + " " + change->value);
        }
        return lines;
    }

    bool waitForRecorded(const std::string& text) const
    {
        return eventually([&] { return readFile(mFile).find(text) != std::string::npos; });
    }

    BrokerProcess mBroker;
    TemporaryFolder mFolder;
    const std::string mFile = mFolder / "recording.jsonl";
};

std::string lineAt(const char* second, const std::string& kind, const std::string& name,
                   const std::string& value)
{
    return "{\"kind\":\"" + kind + "\",\"name\":\"" + name + "\",\"time\":\"2026-05-28T20:26:" + second +
           "Z\",\"value\":\"" + value + "\"}\n";
}

} // namespace

TEST_F(RecordingTest, holdsChangesAndEvents)
{
    TestProcess record(commandOf({"record", mFile, "door", "--event", "bell", "-n", "2"}));
    ASSERT_TRUE(waitForRecorded("synced"));
    statusctl({"set", "door", "open", "lamp", "on"});
    statusctl({"event", "bell", "rang"});
    EXPECT_EQ(record.waitForExit(), 0);
    EXPECT_EQ(recorded(), (Words{"changed door open", "event bell rang"}));
}

TEST_F(RecordingTest, isThereEvenIfTheRecorderIsKilled)
{
    TestProcess record(commandOf({"record", mFile}));
    ASSERT_TRUE(waitForRecorded("synced"));
    statusctl({"set", "door", "open"});
    ASSERT_TRUE(waitForRecorded("open"));
    record.signal(SIGKILL);
    record.waitForExit();
    EXPECT_EQ(recorded(), (Words{"changed door open"}));
}

TEST_F(RecordingTest, endsWellWhenItsTimeIsOver)
{
    EXPECT_EQ(statusctl({"-t", "300ms", "record", mFile, "door"}), success(""));
    EXPECT_NE(readFile(mFile).find("synced"), std::string::npos);
}

TEST_F(RecordingTest, anInterruptEndsItAlsoInTheBackground)
{
    TestProcess record(inBackground({"record", mFile, "door"}));
    ASSERT_TRUE(waitForRecorded("synced"));
    record.signal(SIGINT);
    EXPECT_EQ(record.waitForExit(), 128 + SIGINT);
}

TEST_F(RecordingTest, anInterruptEndsAReplayInTheBackground)
{
    TestProcess replay(inBackground({"replay", "-"}));
    replay.write(lineAt("00.000000", "changed", "door", "1"));
    EXPECT_EQ(statusctl({"wait", "door=1"}), success("1\n")); // it runs, and waits for more lines
    replay.signal(SIGINT);
    EXPECT_EQ(replay.waitForExit(), 128 + SIGINT);
}

TEST_F(RecordingTest, aFileThatCannotBeWrittenIsAFailure)
{
    const Outcome outcome = statusctl({"record", "/none/such"});
    EXPECT_EQ(outcome, failure(1, "statusctl: record: cannot write /none/such: No such file or directory"));
    EXPECT_EQ(statusctl({"record", "/dev/full"}).code, 1);
}

TEST_F(RecordingTest, isPostedAgainByReplay)
{
    TestProcess watch(commandOf({"watch", "door", "--event", "bell"}));
    EXPECT_EQ(nextLine(watch), "synced");
    writeFile(mFile, lineAt("00.000000", "initial", "door", "shut") +
                         lineAt("01.000000", "changed", "door", "open") +
                         lineAt("01.100000", "event", "bell", "rang") +
                         lineAt("01.200000", "reset", "door", ""));
    EXPECT_EQ(statusctl({"replay", mFile}), success("4\n"));
    EXPECT_EQ(nextLine(watch), "changed door shut");
    EXPECT_EQ(nextLine(watch), "changed door open");
    EXPECT_EQ(nextLine(watch), "event bell rang");
    EXPECT_EQ(nextLine(watch), "reset door ");
}

TEST_F(RecordingTest, replayKeepsThePaceOrTheSpeedAskedFor)
{
    const auto durationOf = [&](const char* end, const char* speed)
    {
        writeFile(mFile, lineAt("01.000000", "changed", "door", "1") + lineAt(end, "changed", "door", "2"));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(statusctl({"replay", mFile, "--speed", speed}), success("2\n"));
        return std::chrono::steady_clock::now() - begin;
    };
    EXPECT_GE(durationOf("02.000000", "1"), std::chrono::seconds(1));
    EXPECT_GE(durationOf("02.000000", "2"), std::chrono::milliseconds(500));
    EXPECT_LT(durationOf("59.000000", "0"), std::chrono::seconds(50));
}

TEST_F(RecordingTest, aLineThatIsNoneIsNamed)
{
    EXPECT_EQ(statusctl({"replay", "-"}, lineAt("01.000000", "changed", "door", "1") + "nonsense\n"),
              failure(1, "statusctl: replay: -:2: not a line of a recording"));
}

// As "watch --json --stale" prints it.
TEST_F(RecordingTest, whatWasStaleIsNotPosted)
{
    const std::string line =
        R"({"kind":"stale","name":"door","time":"2026-05-28T20:26:40.123456Z","value":"open"})";
    const Outcome outcome = statusctl({"-q", "replay", "-"}, line + "\n");
    EXPECT_EQ(outcome.code, 0) << outcome;
    EXPECT_EQ(statusctl({"get", "door"}).code, 3);
}

TEST_F(RecordingTest, replayOfAFolderIsAFailure)
{
    EXPECT_EQ(statusctl({"replay", "/"}), failure(1, "statusctl: replay: cannot read /"));
}

TEST_F(RecordingTest, aDashIsStandardOutput)
{
    const Outcome outcome = statusctl({"-t", "300ms", "record", "-", "door"});
    EXPECT_NE(outcome.output.find("synced"), std::string::npos) << outcome;
}

TEST_F(RecordingTest, aReaderThatHasGoneEndsItSilently)
{
    TestProcess record(commandOf({"record", "-", "door"}));
    ASSERT_NE(record.readLine().value_or("").find("synced"), std::string::npos);
    record.closeOutput();
    statusctl({"set", "door", "open"});
    EXPECT_EQ(record.waitForExit(), 128 + SIGPIPE);
    EXPECT_EQ(record.errors(), "");
}

TEST_F(RecordingTest, aDryRunReadsAndChecksOnly)
{
    writeFile(mFile,
              lineAt("01.000000", "changed", "door", "1") + lineAt("59.000000", "changed", "door", "2"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(statusctl({"replay", "--dry-run", mFile}), success("2\n"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(50));
    EXPECT_EQ(statusctl({"dump"}), success(""));
    EXPECT_EQ(statusctl({"replay", "--dry-run", "-"}, "nonsense\n"),
              failure(1, "statusctl: replay: -:1: not a line of a recording"));
    mBroker.stop();
    EXPECT_EQ(statusctl({"replay", "--dry-run", mFile}), success("2\n"));
}
