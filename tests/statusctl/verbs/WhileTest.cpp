// set --while, with a real broker. Its policy resets values when their owner ends.

#include <csignal>
#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class WhileTest : public testing::Test
{
protected:
    std::string policy() const
    {
        writeFile(folder / "p", "[[owned]]\nkeys = \"job\"\nbecomes = \"ended\"\ngrace = \"100ms\"\n");
        return folder / "p";
    }

    static Words whileRunning(const Words& command)
    {
        Words words{"set", "job", "running", "--while", "--"};
        words.insert(words.end(), command.begin(), command.end());
        return words;
    }

    static bool ends()
    {
        return eventually([] { return statusctl({"get", "job"}) == success("ended\n"); });
    }

    TemporaryFolder folder;
    BrokerProcess broker{{"--policy", policy()}};
};

} // namespace

TEST_F(WhileTest, theValueIsThereAsLongAsTheCommandRunsAndEndsWithIt)
{
    EXPECT_EQ(statusctl(whileRunning(commandOf({"get", "job"}))), success("running\n"));
    EXPECT_TRUE(ends());
}

TEST_F(WhileTest, theValueStaysWhileTheCommandRuns)
{
    TestProcess tool(commandOf(whileRunning({"cat"})));
    EXPECT_TRUE(eventually([] { return statusctl({"get", "job"}) == success("running\n"); }));
    EXPECT_EQ(statusctl({"wait", "job=ended", "-t", "500ms"}).code, 124); // longer than the grace time
    tool.closeInput();
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_TRUE(ends());
}

TEST_F(WhileTest, theExitCodeIsTheCommands)
{
    EXPECT_EQ(statusctl(whileRunning({"sh", "-c", "exit 42"})).code, 42);
    EXPECT_EQ(statusctl(whileRunning({"sh", "-c", "kill -KILL $$"})).code, 128 + SIGKILL);
}

TEST_F(WhileTest, aCommandThatIsNotThereIsExitCode127)
{
    EXPECT_EQ(statusctl(whileRunning({"no-such-program"})),
              failure(127, "statusctl: set: cannot run \"no-such-program\": No such file or directory"));
    EXPECT_EQ(statusctl(whileRunning({"/dev/null"})).code, 126);
    EXPECT_TRUE(ends());
}

TEST_F(WhileTest, aSignalThatEndsTheToolEndsTheCommand)
{
    if (areSignalsDelayed)
        GTEST_SKIP() << "this build delays signals";
    TestProcess tool(commandOf(whileRunning({"sh", "-c", "echo begun; exec cat"})));
    EXPECT_EQ(tool.readLine(), "begun");
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 128 + SIGTERM);
    EXPECT_TRUE(ends());
}

// The signals may arrive when the command has ended, but not yet the tool.
TEST_F(WhileTest, signalsOneAfterAnotherEndTheTool)
{
    if (areSignalsDelayed)
        GTEST_SKIP() << "this build delays signals";
    TestProcess tool(commandOf(
        whileRunning({"sh", "-c", "trap 'exit 3' TERM; echo begun; while :; do sleep 0.01; done"})));
    EXPECT_EQ(tool.readLine(), "begun");
    std::optional<int> exit;
    EXPECT_TRUE(eventually(
        [&]
        {
            tool.signal(SIGTERM);
            exit = tool.waitForExit(std::chrono::milliseconds(1));
            return exit.has_value();
        }));
    EXPECT_TRUE(exit == 3 || exit == 128 + SIGTERM);
}

// The process has not inherited the connection.
TEST_F(WhileTest, aProcessThatTheCommandLeavesBehindDoesNotKeepTheValue)
{
    TestProcess tool(commandOf(whileRunning({"sh", "-c", "sh -c 'echo $$; exec sleep 60' & exit 0"})));
    const std::optional<std::string> left = tool.readLine();
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_TRUE(ends());
    ASSERT_TRUE(left);
    EXPECT_EQ(kill(std::stoi(*left), SIGKILL), 0);
}

TEST_F(WhileTest, itTakesAPairAndACommand)
{
    EXPECT_EQ(statusctl({"set", "job", "running", "--while"}).code, 2);
    EXPECT_EQ(statusctl({"set", "job", "--while"}).code, 2);
}
