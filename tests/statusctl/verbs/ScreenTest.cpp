// top, on a terminal of its own, with a real broker.

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ScriptedBroker.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

/// A terminal that runs the tool.
class Terminal
{
public:
    explicit Terminal(const Words& words, const std::string& variable = "TERM=xterm")
    {
        winsize size{24, 80, 0, 0};
        if (openpty(&mMaster, &mSlave, nullptr, nullptr, &size) != 0)
            throw std::runtime_error("no terminal");
        tcgetattr(mSlave, &mBefore);
        Words command = commandOf(words);
        command.insert(command.end() - static_cast<std::ptrdiff_t>(words.size()) - 1, "TERM=xterm");
        command.insert(command.end() - static_cast<std::ptrdiff_t>(words.size()) - 1, variable);
        std::vector<char*> arguments;
        for (std::string& word : command)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        mPid = fork();
        if (mPid == 0)
        {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            login_tty(mSlave);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
    }
    ~Terminal()
    {
        if (!mCode)
        {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
        close(mMaster);
        close(mSlave);
    }

    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void type(const std::string& keys)
    {
        EXPECT_EQ(write(mMaster, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    void signal(int number) { kill(mPid, number); }

    void resize(unsigned short lines, unsigned short columns)
    {
        const winsize size{lines, columns, 0, 0};
        ioctl(mMaster, TIOCSWINSZ, &size);
    }

    /// Whether the text appears from now on.
    bool shows(const std::string& text)
    {
        return eventually(
            [&]
            {
                read();
                const std::size_t at = mOutput.find(text, mSeen);
                if (at == std::string::npos)
                    return false;
                mSeen = at + text.size();
                return true;
            });
    }

    int waitForExit()
    {
        eventually(
            [this]
            {
                read(); // the tool would wait if the terminal were full
                int status = 0;
                if (waitpid(mPid, &status, WNOHANG) == mPid)
                    mCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
                return mCode.has_value();
            });
        read();
        return mCode.value_or(-1);
    }

    /// Whether the terminal is as before: its modes, the cursor, and the screen behind.
    bool isRestored() const
    {
        termios now{};
        tcgetattr(mSlave, &now);
        const bool hasModes = now.c_lflag == mBefore.c_lflag && now.c_iflag == mBefore.c_iflag &&
                              now.c_oflag == mBefore.c_oflag;
        return hasModes && isLast("\x1b[?1049l", "\x1b[?1049h") && isLast("\x1b[?12l\x1b[?25h", "\x1b[?25l");
    }

    const std::string& output() const { return mOutput; }

private:
    void read()
    {
        std::array<char, 4096> bytes{};
        for (pollfd item{mMaster, POLLIN, 0}; poll(&item, 1, 10) > 0 && (item.revents & POLLIN) != 0;)
        {
            const ssize_t size = ::read(mMaster, bytes.data(), bytes.size());
            if (size <= 0)
                return;
            mOutput.append(bytes.data(), static_cast<std::size_t>(size));
        }
    }

    bool isLast(const std::string& wanted, const std::string& other) const
    {
        const std::size_t at = mOutput.rfind(wanted);
        const std::size_t before = mOutput.rfind(other);
        return at != std::string::npos && (before == std::string::npos || at > before);
    }

    int mMaster = -1;
    int mSlave = -1;
    pid_t mPid = -1;
    termios mBefore{};
    std::string mOutput;
    std::size_t mSeen = 0;
    std::optional<int> mCode;
};

class ScreenTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
};

} // namespace

TEST_F(ScreenTest, showsValuesChangesAndEvents)
{
    statusctl({"set", "door", "open"});
    Terminal terminal({"top"});
    EXPECT_TRUE(terminal.shows("open"));
    statusctl({"set", "lamp", "bright"});
    EXPECT_TRUE(terminal.shows("bright"));
    statusctl({"event", "bell", "rang"});
    EXPECT_TRUE(terminal.shows("bell rang"));
}

TEST_F(ScreenTest, aWideTerminalShowsWhoPosted)
{
    constexpr unsigned short wide = 120;
    statusctl({"set", "door", "open"});
    // The poster is the service in which the tests run, or their user.
    const std::string line = statusctl({"get", "--long", "door"}).output;
    const std::string poster = line.substr(line.rfind("  ") + 2, 4);
    ASSERT_EQ(poster.size(), 4U) << line;
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("open"));
    EXPECT_EQ(terminal.output().find("POSTER"), std::string::npos);
    terminal.resize(24, wide);
    EXPECT_TRUE(terminal.shows("POSTER"));
    EXPECT_TRUE(terminal.shows(poster));
}

TEST_F(ScreenTest, aNarrowTerminalShowsKeysAndValuesAlone)
{
    constexpr unsigned short narrow = 39;
    statusctl({"set", "door", "open"});
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("PER S"));
    const std::size_t before = terminal.output().size();
    terminal.resize(24, narrow);
    ASSERT_TRUE(terminal.shows("VALUE"));
    EXPECT_EQ(terminal.output().find("AGE", before), std::string::npos);
    terminal.resize(24, narrow + 1);
    EXPECT_TRUE(terminal.shows("AGE"));
}

TEST_F(ScreenTest, qLeavesAndRestoresTheTerminal)
{
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("q to leave"));
    EXPECT_FALSE(terminal.isRestored());
    terminal.type("q");
    EXPECT_EQ(terminal.waitForExit(), 0);
    EXPECT_TRUE(terminal.isRestored());
}

TEST_F(ScreenTest, aSignalLeavesWithItAndRestoresTheTerminal)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
    {
        Terminal terminal({"top"});
        ASSERT_TRUE(terminal.shows("q to leave"));
        terminal.signal(number);
        EXPECT_EQ(terminal.waitForExit() & 0x7f, number);
        EXPECT_TRUE(terminal.isRestored()) << "signal " << number;
    }
}

TEST_F(ScreenTest, aFilterShowsOnlyWhatMatches)
{
    statusctl({"set", "door", "open", "lamp", "bright"});
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("bright"));
    terminal.type("d");
    ASSERT_TRUE(terminal.shows("(Esc clears it)"));
    statusctl({"set", "lamp", "NOT SHOWN"});
    statusctl({"set", "door", "ajar"});
    EXPECT_TRUE(terminal.shows("ajar"));
    EXPECT_EQ(terminal.output().find("NOT SHOWN"), std::string::npos);
    terminal.type("\x1b");
    EXPECT_TRUE(terminal.shows("NOT SHOWN"));
}

TEST_F(ScreenTest, qInAFilterIsALetter)
{
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("q to leave"));
    terminal.type("dq");
    ASSERT_TRUE(terminal.shows("(Esc clears it)"));
    terminal.type("\x7f\x7f");
    ASSERT_TRUE(terminal.shows("to leave"));
    terminal.type("q");
    EXPECT_EQ(terminal.waitForExit(), 0);
}

TEST_F(ScreenTest, aSmallTerminalIsNoTrouble)
{
    statusctl({"set", "door", "open"});
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("open"));
    for (const int size : {1, 2, 5, 200, 24})
    {
        terminal.resize(static_cast<unsigned short>(size), static_cast<unsigned short>(size));
        statusctl({"event", "bell", "rang"});
        statusctl({"set", "door", std::to_string(size)});
    }
    terminal.resize(24, 80);
    statusctl({"set", "door", "AJAR"}); // curses draws only the part that differs
    EXPECT_TRUE(terminal.shows("AJAR")) << terminal.output();
    terminal.type("q");
    EXPECT_EQ(terminal.waitForExit(), 0) << terminal.output();
    EXPECT_TRUE(terminal.isRestored());
}

TEST_F(ScreenTest, tellsWhenTheBrokerHasGone)
{
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("q to leave"));
    mBroker.stop();
    EXPECT_TRUE(terminal.shows("no broker"));
}

TEST(ScreenStartTest, aSignalEndsItWhileTheBrokerDoesNotAnswer)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(
        [](const std::string& request) -> std::optional<ScriptedBroker::Frames>
        {
            if (request.find("Sync") == std::string::npos)
                return std::nullopt;
            return ScriptedBroker::Frames{"SyncAck"};
        });
    Terminal terminal({"-t", "60", "top"});
    ASSERT_TRUE(broker.waitForRequests(2));
    terminal.signal(SIGINT);
    EXPECT_EQ(terminal.waitForExit(), 128 + SIGINT);
}

TEST(ScreenStartTest, whatWaitsForTheBrokerTellsSoToPeople)
{
    Terminal waiting({"watch", "a"});
    EXPECT_TRUE(waiting.shows("statusctl: watch: waiting for the broker"));
    Terminal quiet({"-q", "-t", "200ms", "watch", "a"});
    EXPECT_TRUE(quiet.shows("no broker within 200ms"));
    EXPECT_EQ(quiet.output().find("waiting"), std::string::npos);
}

// In this case on the feed's thread, which looks for missed keys.
TEST(ScreenStartTest, aBrokerThatStopsToAnswerIsToldBehindTheScreen)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    Terminal terminal({"-t", "1", "top"});
    ASSERT_TRUE(terminal.shows("q to leave"));
    broker.keepSilent();
    ASSERT_TRUE(eventually(
        [&]
        {
            broker.publish("{\"eventUpdate\":{\"bell\":\"rang\"}}");
            return terminal.shows("\x1b[?1049l");
        }));
    EXPECT_TRUE(terminal.shows("no answer from the broker within 1 s"));
    EXPECT_EQ(terminal.waitForExit(), 124);
    EXPECT_TRUE(terminal.isRestored());
}

TEST_F(ScreenTest, controlCharactersInValuesDoNotReachTheTerminal)
{
    statusctl({"set", "door", "\x1b[31mred"});
    Terminal terminal({"top"});
    EXPECT_TRUE(terminal.shows("\\x1b[31mred"));
}

TEST_F(ScreenTest, getShowsOnATerminalWhatIsHidden)
{
    statusctl({"set", "door", "a\u202eb\tc\x1b"});
    Terminal terminal({"get", "door"});
    EXPECT_TRUE(terminal.shows("a\\xe2\\x80\\xaeb\tc\\x1b"));
    EXPECT_EQ(terminal.waitForExit(), 0);
}

// Otherwise it would continue on the next row, under another key.
TEST_F(ScreenTest, aValueOfWideCharactersEndsWithItsColumn)
{
    std::string value;
    for (int number = 0; number < 50; ++number)
        value += "\u4e16";
    statusctl({"set", "door", value, "lamp", "bright"});
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("bright"));
    const auto count = std::count(terminal.output().begin(), terminal.output().end(), '\xe4');
    EXPECT_EQ(count, 20) << "in a column of 40";
}

TEST_F(ScreenTest, aNameCannotPassForNameAndValue)
{
    Terminal terminal({"top"});
    ASSERT_TRUE(terminal.shows("q to leave"));
    statusctl({"event", "bell rang", "twice"});
    EXPECT_TRUE(terminal.shows("bell\\x20rang twice"));
}

TEST_F(ScreenTest, withoutATerminalItIsRefused)
{
    EXPECT_EQ(statusctl({"top"}), failure(1, "statusctl: top: no terminal; use \"statusctl watch\" instead"));
}

TEST_F(ScreenTest, watchIsColouredOnATerminalUnlessToldNotTo)
{
    statusctl({"set", "door", "open"});
    Terminal plain({"--no-color", "watch", "door"});
    ASSERT_TRUE(plain.shows("synced"));
    EXPECT_EQ(plain.output().find('\x1b'), std::string::npos);
    Terminal coloured({"watch", "door"});
    ASSERT_TRUE(coloured.shows("synced"));
    EXPECT_NE(coloured.output().find("\x1b[2m"), std::string::npos);
}

TEST_F(ScreenTest, noColorInTheEnvironmentSaysTheSame)
{
    statusctl({"set", "door", "open"});
    Terminal terminal({"watch", "door"}, "NO_COLOR=1");
    ASSERT_TRUE(terminal.shows("synced"));
    EXPECT_EQ(terminal.output().find('\x1b'), std::string::npos);
}

TEST_F(ScreenTest, loadShowsAProgressBarAndTakesItAway)
{
    const TemporaryFolder folder;
    std::string values;
    for (int number = 0; number < 1000; ++number)
        values +=
            (number == 0 ? "\"" : ",\"") + std::to_string(number) + "\":\"" + std::string(100, 'x') + "\"";
    writeFile(folder / "values.json", "{\"values\":{" + values + "}}");
    Terminal terminal({"load", folder / "values.json"});
    EXPECT_EQ(terminal.waitForExit(), 0);
    EXPECT_TRUE(terminal.shows("########] 1000 of 1000\r\x1b[K"));
    EXPECT_TRUE(terminal.shows("1000"));
}
