// The broker's configuration file: its settings, and the report of each mistake.

#include <array>
#include <fstream>
#include <ostream>
#include <random>
#include <sys/stat.h>

#include "tests/broker/OptionsFixture.h"

// ------------------------------------------------------------------------------------------ text of a file

TEST(ParseConfig, noTextIsTheDefaults)
{
    EXPECT_EQ(readFile(""), defaults);
}

TEST(ParseConfig, emptyLinesAndCommentsAreIgnored)
{
    EXPECT_EQ(readFile("\n  \n# max-keys = 1\n\t#max-keys\nmax-keys = 2\n#"), defaultsBut("max-keys", "2"));
}

TEST(ParseConfig, aCommentMayFollowAValue)
{
    EXPECT_EQ(readFile("state = /run/state # kept\n"), defaultsBut("state", "/run/state"));
    EXPECT_EQ(readFile("state = /run/state\t#kept\n"), defaultsBut("state", "/run/state"));
}

TEST(ParseConfig, blanksAroundNameAndValueAreIgnored)
{
    EXPECT_EQ(readFile("\t max-keys\t=  2 \t\n"), defaultsBut("max-keys", "2"));
    EXPECT_EQ(readFile("max-keys=2\n"), defaultsBut("max-keys", "2"));
}

TEST(ParseConfig, theLastLineNeedsNoEnd)
{
    EXPECT_EQ(readFile("max-keys = 2"), defaultsBut("max-keys", "2"));
}

TEST(ParseConfig, linesMayEndWithCarriageReturns)
{
    Values expected = defaultsBut("max-keys", "2");
    expected["state"] = "/run/state";
    EXPECT_EQ(readFile("# text\r\n\r\nmax-keys = 2\r\nstate = /run/state\r\n"), expected);
}

TEST(ParseConfig, stateKeysAddUpInTheirOrder)
{
    EXPECT_EQ(readFile("state-keys = b*\nstate-keys = [a]\n"), defaultsBut("state-keys", "<b*><[a]>"));
}

TEST(ParseConfig, aFlagMayBeSwitchedOff)
{
    EXPECT_EQ(readFile("allow-set-time = false\n"), defaults);
}

TEST(ParseConfig, valuesMayHoldAnyLetters)
{
    EXPECT_EQ(readFile("state = /run/zust\xc3\xa4nde\n"), defaultsBut("state", "/run/zust\xc3\xa4nde"));
}

// They may be consistent together with the command line.
TEST(ParseConfig, limitsThatContradictEachOtherAreNotRefusedYet)
{
    EXPECT_EQ(readFile("max-message-bytes = 1K\n"), defaultsBut("max-message-bytes", "1024"));
}

TEST(ParseConfig, aLineOfTheGreatestLengthIsRead)
{
    const std::string name(4096 - 8, 'n');
    EXPECT_EQ(readFile("state = " + name + "\r\n"), defaultsBut("state", name));
}

namespace
{

struct Mistake
{
    std::string text;
    std::string error;
};

class WrongConfig : public testing::TestWithParam<Mistake>
{
};

std::string mistakeName(const testing::TestParamInfo<Mistake>& info)
{
    return testName(info.param.error, info.index);
}

void PrintTo(const Mistake& mistake, std::ostream* stream)
{
    *stream << mistake.error;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    ParseConfig, WrongConfig,
    testing::Values(
        Mistake{"no-such-name = 1\n", "file:1: unknown name \"no-such-name\""},
        Mistake{"\n\nno-such-name = 1\nmax-keys = 0\n", "file:3: unknown name \"no-such-name\""},
        Mistake{"# text\r\n\r\nno-such-name =\r\n", "file:3: unknown name \"no-such-name\""},
        Mistake{"--max-keys = 1\n", "file:1: unknown name \"--max-keys\""},
        Mistake{"-max-keys = 1\n", "file:1: unknown name \"-max-keys\""},
        Mistake{"max_keys = 1\n", "file:1: unknown name \"max_keys\""},
        Mistake{"MAX-KEYS = 1\n", "file:1: unknown name \"MAX-KEYS\""},
        Mistake{"max keys = 1\n", "file:1: unknown name \"max keys\""},
        Mistake{" = 1\n", "file:1: unknown name \"\""}, Mistake{"- = 1\n", "file:1: unknown name \"-\""},
        Mistake{"config = other\n", "file:1: unknown name \"config\""},
        Mistake{"check-config = true\n", "file:1: unknown name \"check-config\""},
        Mistake{"help = true\n", "file:1: unknown name \"help\""},
        Mistake{"version = true\n", "file:1: unknown name \"version\""},
        Mistake{"\xef\xbb\xbfmax-keys = 1\n", "file:1: unknown name \"???max-keys\""},
        Mistake{std::string(100, 'n') + " = 1\n", "file:1: unknown name \"" + std::string(40, 'n') + "...\""},
        Mistake{"\nmax-keys\n", "file:2: not of the form \"name = value\""},
        Mistake{"[limits]\n", "file:1: not of the form \"name = value\""},
        Mistake{"max-keys # = 1\n", "file:1: not of the form \"name = value\""},
        Mistake{"\nmax-keys =", "file:2: no value for \"max-keys\""},
        Mistake{"max-keys = # 1\n", "file:1: no value for \"max-keys\""},
        Mistake{"max-keys = 1\n\nmax-keys = 1\n", "file:3: \"max-keys\" is given twice"},
        Mistake{"allow-set-time = true\nallow-set-time = true\n",
                "file:2: \"allow-set-time\" is given twice"},
        Mistake{"\nmax-keys = 0\n\n", "file:2: max-keys: \"0\" is not a number in 1..1000000"},
        Mistake{"max-keys = 1000001\n", "file:1: max-keys: \"1000001\" is not a number in 1..1000000"},
        Mistake{"max-keys = 1K\n", "file:1: max-keys: \"1K\" is not a number in 1..1000000"},
        Mistake{"max-keys = \"1\"\n", "file:1: max-keys: \"\"1\"\" is not a number in 1..1000000"},
        Mistake{"max-timers = 0\n", "file:1: max-timers: \"0\" is not a number in 1..1000000"},
        Mistake{"max-counters = 0\n", "file:1: max-counters: \"0\" is not a number in 1..1000000"},
        Mistake{"max-connections = 0\n", "file:1: max-connections: \"0\" is not a number in 1..1000000"},
        Mistake{"log-level = -1\n", "file:1: log-level: \"-1\" is not a number in 0..7"},
        Mistake{"log-level = 8\n", "file:1: log-level: \"8\" is not a number in 0..7"},
        Mistake{"heartbeat = 3601\n", "file:1: heartbeat: \"3601\" is not a number in 0..3600"},
        Mistake{"heartbeat = 0.5\n", "file:1: heartbeat: \"0.5\" is not a number in 0..3600"},
        Mistake{"max-key-bytes = 0\n", "file:1: max-key-bytes: \"0\" is not a size in 1..1M"},
        Mistake{"max-key-bytes = 1025K\n", "file:1: max-key-bytes: \"1025K\" is not a size in 1..1M"},
        Mistake{"max-value-bytes = 0K\n", "file:1: max-value-bytes: \"0K\" is not a size in 1..64M"},
        Mistake{"max-value-bytes = 65M\n", "file:1: max-value-bytes: \"65M\" is not a size in 1..64M"},
        Mistake{"max-value-bytes = 64 K\n", "file:1: max-value-bytes: \"64 K\" is not a size in 1..64M"},
        Mistake{"max-stored-bytes = 1\n", "file:1: max-stored-bytes: \"1\" is not a size in 1K..1024M"},
        Mistake{"max-stored-bytes = 1G\n", "file:1: max-stored-bytes: \"1G\" is not a size in 1K..1024M"},
        Mistake{"max-message-bytes = 1023\n", "file:1: max-message-bytes: \"1023\" is not a size in 1K..64M"},
        Mistake{"max-notify-bytes = 63K\n", "file:1: max-notify-bytes: \"63K\" is not a size in 64K..1024M"},
        Mistake{"max-memory = 4095K\n", "file:1: max-memory: \"4095K\" is not a size in 4M..2048M"},
        Mistake{"max-memory = 2049M\n", "file:1: max-memory: \"2049M\" is not a size in 4M..2048M"},
        Mistake{"state-sync = FULL\n", "file:1: state-sync: \"FULL\" is not one of off, normal, full"},
        Mistake{"allow-set-time = maybe\n", "file:1: allow-set-time: \"maybe\" is not one of true, false"},
        Mistake{"allow-set-time = x\n", "file:1: allow-set-time: \"x\" is not one of true, false"},
        Mistake{"state = --check-config\n", "file:1: state: \"--check-config\" is empty or an option"},
        Mistake{"\nmax-keys = " + std::string(60, '9') + "\n",
                "file:2: max-keys: \"" + std::string(40, '9') + "...\" is not a number in 1..1000000"},
        Mistake{"log-level = \xc3\xa4\n", "file:1: log-level: \"??\" is not a number in 0..7"},
        Mistake{std::string("\nmax-keys = 1\0\n", 15), "file:2: a control character"},
        Mistake{std::string("\0", 1), "file:1: a control character"},
        Mistake{"# \x1b[2J\n", "file:1: a control character"},
        Mistake{"state = a\rmax-keys = 1\n", "file:1: a control character"},
        Mistake{"state = a\x7f\n", "file:1: a control character"},
        Mistake{"\nstate = " + std::string(4096 - 7, 'n') + "\n", "file:2: longer than 4096 bytes"},
        Mistake{"#" + std::string(60000, 'n'), "file:1: longer than 4096 bytes"}),
    mistakeName);

TEST_P(WrongConfig, isRefusedWithItsLineAndReason)
{
    EXPECT_EQ(errorIn(GetParam().text), GetParam().error);
}

TEST(ParseConfig, anyBytesAreReadOrRefusedInOneLineOfText)
{
    const std::array<std::string, 12> parts{"max-keys",  "state-keys", "=",  "\n",  " ",  "#",
                                            "log-level", "\r\n",       "--", "64K", "{}", "%%"};
    std::mt19937 random(1); // NOLINT: the same in every run
    for (int round = 0; round < 5000; ++round)
    {
        std::string text;
        for (auto count = random() % 12; count != 0; --count)
            text += random() % 8 == 0 ? std::string(1, static_cast<char>(random()))
                                      : parts[random() % parts.size()];
        const std::string error = errorIn(text);
        EXPECT_TRUE(error.empty() || startsWith(error, "file:")) << text;
        EXPECT_TRUE(std::all_of(error.begin(), error.end(), [](char c) { return c >= ' ' && c <= '~'; }))
            << text;
    }
}

// -------------------------------------------------------------------------------------------------- files

TEST_F(ConfigFileTest, isRead)
{
    write("max-keys = 5\n");
    EXPECT_EQ(read({"--config", file()}), defaultsBut("max-keys", "5"));
}

TEST_F(ConfigFileTest, losesAgainstTheCommandLine)
{
    write("max-keys = 5\nallow-set-time = true\nheartbeat = 7\nstate-sync = full\n");
    Values expected = defaultsBut("max-keys", "6");
    expected["heartbeat"] = "7";
    expected["state-sync"] = "full";
    EXPECT_EQ(read({"--max-keys", "6", "--config", file(), "--allow-set-time=false"}), expected);
}

TEST_F(ConfigFileTest, losesAgainstADefaultGivenOnTheCommandLine)
{
    write("max-keys = 5\n");
    EXPECT_EQ(read({"--config", file(), "--max-keys", "10000"}), defaults);
}

TEST_F(ConfigFileTest, itsStateKeysAreReplacedByThoseOfTheCommandLine)
{
    write("state-keys = a\nstate-keys = b\n");
    EXPECT_EQ(read({"--config", file(), "--state-keys", "c"}), defaultsBut("state-keys", "<c>"));
}

TEST_F(ConfigFileTest, isReadAgainEachTime)
{
    write("max-keys = 5\n");
    const CommandLine line = commandLine({"--config", file(), "--heartbeat", "7"});
    line.readOptions();
    write("max-keys = 6\nheartbeat = 8\n");
    Values expected = defaultsBut("max-keys", "6");
    expected["heartbeat"] = "7";
    EXPECT_EQ(valuesOf(line.readOptions()), expected);
}

TEST_F(ConfigFileTest, thatTurnedBadIsRefusedUntilItIsGoodAgain)
{
    write("max-keys = 5\n");
    const CommandLine line = commandLine({"--config", file()});
    write("max-keys = none\n");
    EXPECT_EQ(errorOf(line), file() + ":1: max-keys: \"none\" is not a number in 1..1000000");
    write("max-keys = 6\n");
    EXPECT_EQ(valuesOf(line.readOptions()), defaultsBut("max-keys", "6"));
}

TEST_F(ConfigFileTest, thatIsRefusedLaterIsNotPrinted)
{
    write("max-keys = none\n");
    const CommandLine line = commandLine({"--config", file()});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const std::string error = errorOf(line);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_NE(error, "");
}

TEST_F(ConfigFileTest, mayNotContradictItself)
{
    write("max-message-bytes = 32K\n");
    EXPECT_EQ(errorOf(commandLine({"--config", file()})),
              file() + ": max-value-bytes (65536) must not be above max-message-bytes (32768)");
    write("max-message-bytes = 2K\nmax-value-bytes = 1K\nmax-key-bytes = 3K\n");
    EXPECT_EQ(errorOf(commandLine({"--config", file()})),
              file() + ": max-key-bytes (3072) must not be above max-message-bytes (2048)");
    write("max-memory = 4M\nmax-notify-bytes = 1M\n");
    EXPECT_EQ(errorOf(commandLine({"--config", file()})),
              file() + ": max-memory (4194304) must not be below max-notify-bytes and four times "
                       "max-message-bytes together (5242880)");
}

TEST_F(ConfigFileTest, mayNotContradictTheCommandLine)
{
    write("max-message-bytes = 128K\n");
    EXPECT_EQ(errorOf(commandLine({"--config", file(), "--max-value-bytes", "129K"})),
              file() + ": max-value-bytes (132096) must not be above max-message-bytes (131072)");
}

TEST_F(ConfigFileTest, mayFitTogetherWithTheCommandLineOnly)
{
    write("max-message-bytes = 4M\nmax-memory = 20M\n");
    EXPECT_EQ(read({"--config", file(), "--max-value-bytes", "3M"}).at("max-value-bytes"), "3145728");
    write("max-notify-bytes = 64M\n");
    EXPECT_EQ(read({"--config", file(), "--max-memory", "68M"}).at("max-notify-bytes"), "67108864");
    write("max-message-bytes = 32K\n");
    EXPECT_EQ(read({"--config", file(), "--max-value-bytes", "32K"}).at("max-message-bytes"), "32768");
}

TEST_F(ConfigFileTest, thatIsMissingIsToldSo)
{
    EXPECT_EQ(errorOf(commandLine({"--config", file()})),
              file() + ": cannot be read: No such file or directory");
}

TEST_F(ConfigFileTest, thatIsAFolderIsToldSo)
{
    EXPECT_EQ(errorOf(commandLine({"--config", folder})), folder + ": cannot be read: not a regular file");
}

TEST_F(ConfigFileTest, thatIsAPipeIsNotWaitedFor)
{
    ASSERT_EQ(mkfifo(file().c_str(), S_IRUSR | S_IWUSR), 0);
    EXPECT_EQ(errorOf(commandLine({"--config", file()})), file() + ": cannot be read: not a regular file");
}

TEST(ConfigFile, thatCannotBeReadIsToldSo)
{
    const std::string unreadable = "/proc/self/mem"; // its first bytes are not mapped
    EXPECT_EQ(errorOf(commandLine({"--config", unreadable})), unreadable + ": cannot be read");
}

TEST_F(ConfigFileTest, ofTheGreatestSizeIsRead)
{
    std::string text = "max-keys = 5\n";
    while (text.size() < 65536)
        text += "#\n";
    text.resize(65536);
    write(text);
    EXPECT_EQ(read({"--config", file()}), defaultsBut("max-keys", "5"));
    write(text + "#");
    EXPECT_EQ(errorOf(commandLine({"--config", file()})), file() + ": longer than 65536 bytes");
}

// ------------------------------------------------------------------------------------------ the process

TEST_F(ConfigFileTest, thatIsGoodIsToldSoByACheck)
{
    write("max-keys = 5\n");
    const Outcome outcome = run({"--config", file(), "--check-config"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output, "statusbroker: the configuration is valid\n");
    EXPECT_EQ(outcome.errors, "");
}

TEST_F(ConfigFileTest, thatIsWrongEndsTheBrokerWithOneLineAndCodeTwo)
{
    write("\nno-such-name = 5\n");
    for (const Lines& arguments : {Lines{"--config", file()}, Lines{"--config", file(), "--check-config"}})
    {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, "statusbroker: " + file() + ":2: unknown name \"no-such-name\"\n");
    }
}

TEST_F(ConfigFileTest, isNotReadWhenTheCommandLineIsWrong)
{
    write("no-such-name = 5\n");
    EXPECT_EQ(run({"--config", file(), "--check-config", "--max-keys", "0"}).code, 2);
}

TEST_F(ConfigFileTest, isCheckedWithoutMakingAStateFile)
{
    const std::string state = folder + "/state.db";
    write("state = " + state + "\n");
    EXPECT_EQ(run({"--config", file(), "--check-config"}).code, 0);
    EXPECT_FALSE(std::filesystem::exists(state));
}
