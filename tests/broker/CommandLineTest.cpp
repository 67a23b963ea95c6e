// The broker's command line and configuration file: what they set, which of them wins, and how each mistake
// in them is told.

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

#include "broker/CommandLine.h"
#include "tests/support/TestProcess.h"

namespace
{

using Lines = std::vector<std::string>;
using Values = std::map<std::string, std::string>;

std::string nameOf(StateSync sync)
{
    return sync == StateSync::Off ? "off" : sync == StateSync::Normal ? "normal" : "full";
}

std::string joined(const Lines& texts)
{
    std::string result;
    for (const std::string& text : texts)
        result += "<" + text + ">";
    return result;
}

// By the options' names, so that two sets of options can be compared and told apart.
Values valuesOf(const Options& options)
{
    const auto text = [](std::size_t number) { return std::to_string(number); };
    const Limits& limits = options.limits;
    return {{"allow-set-time", options.allowSetTime ? "true" : "false"},
            {"log-level", std::to_string(options.logLevel)},
            {"heartbeat", std::to_string(options.heartbeat.count())},
            {"state", options.stateFile},
            {"state-sync", nameOf(options.stateSync)},
            {"state-keys", joined(options.stateKeys)},
            {"max-keys", text(limits.keys)},
            {"max-key-bytes", text(limits.keyBytes)},
            {"max-value-bytes", text(limits.valueBytes)},
            {"max-stored-bytes", text(limits.storedBytes)},
            {"max-message-bytes", text(limits.messageBytes)},
            {"max-timers", text(limits.timers)},
            {"max-counters", text(limits.counters)},
            {"max-notify-bytes", text(limits.notifyBytes)},
            {"max-memory", text(limits.memory)},
            {"max-connections", text(limits.connections)}};
}

const Values defaults = valuesOf(Options());

Values defaultsBut(const std::string& name, const std::string& value)
{
    Values values = defaults;
    values[name] = value;
    return values;
}

CommandLine commandLine(const Lines& arguments)
{
    std::vector<char*> pointers{const_cast<char*>("statusbroker")};
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    return {static_cast<int>(pointers.size()), pointers.data()};
}

Values read(const Lines& arguments)
{
    return valuesOf(commandLine(arguments).readOptions());
}

Values readFile(const std::string& text)
{
    return valuesOf(parseConfig(text, "file"));
}

// What is wrong with the text of a file; empty if nothing is.
std::string errorIn(const std::string& text)
{
    try
    {
        parseConfig(text, "file");
        return "";
    }
    catch (const ConfigError& error)
    {
        return error.what();
    }
}

std::string errorOf(const CommandLine& line)
{
    try
    {
        line.readOptions();
        return "";
    }
    catch (const ConfigError& error)
    {
        return error.what();
    }
}

std::string contentsOf(const std::string& fileName)
{
    std::ifstream file(fileName);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

Lines linesOf(const std::string& text)
{
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

struct Outcome
{
    std::optional<int> code;
    std::string output;
    std::string errors;
};

Outcome run(Lines arguments)
{
    arguments.insert(arguments.begin(), STATUSBROKER_PRODUCT);
    TestProcess process(arguments);
    Outcome outcome;
    while (const auto line = process.readLine())
        outcome.output += *line + "\n";
    outcome.code = process.waitForExit();
    outcome.errors = process.errors();
    return outcome;
}

// A folder for the files of one test.
class ConfigFileTest : public testing::Test
{
protected:
    ConfigFileTest()
    {
        std::string path = testing::TempDir() + "commandline-XXXXXX";
        if (mkdtemp(path.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        folder = path;
    }

    ~ConfigFileTest() override { std::filesystem::remove_all(folder); }

    void write(const std::string& text) const { std::ofstream(file(), std::ios::binary) << text; }
    std::string file() const { return folder + "/broker.conf"; }

    std::string folder;
};

// ------------------------------------------------------------------------------------------- every option

struct Setting
{
    std::string name;
    std::string text;
    std::string value;
    std::string memory = ""; // in bytes; beside it, as some sizes fit only into more than the default
};

class EveryOption : public testing::TestWithParam<Setting>
{
};

// Tests get names of letters and digits only.
std::string testName(std::string text, std::size_t index)
{
    const auto isOther = [](char letter) { return isalnum(static_cast<unsigned char>(letter)) == 0; };
    text.erase(std::remove_if(text.begin(), text.end(), isOther), text.end());
    return text + "_" + std::to_string(index);
}

std::string settingName(const testing::TestParamInfo<Setting>& info)
{
    return testName(info.param.name, info.index);
}

void PrintTo(const Setting& setting, std::ostream* stream)
{
    *stream << setting.name << " = " << setting.text;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    CommandLine, EveryOption,
    testing::Values(
        Setting{"allow-set-time", "true", "true"}, Setting{"log-level", "0", "0"},
        Setting{"log-level", "7", "7"}, Setting{"heartbeat", "0", "0"}, Setting{"heartbeat", "3600", "3600"},
        Setting{"state", "/run/state file", "/run/state file"}, Setting{"state", "a=b#c", "a=b#c"},
        Setting{"state", "{}", "{}"}, Setting{"state-sync", "off", "off"},
        Setting{"state-sync", "full", "full"}, Setting{"state-keys", "net.*", "<net.*>"},
        Setting{"state-keys", "[a,b]", "<[a,b]>"}, Setting{"state-keys", "{}", "<{}>"},
        Setting{"max-keys", "1", "1"}, Setting{"max-keys", "1000000", "1000000"},
        Setting{"max-keys", "010", "10"}, Setting{"max-key-bytes", "1", "1"},
        Setting{"max-key-bytes", "1M", "1048576"}, Setting{"max-value-bytes", "2K", "2048"},
        Setting{"max-stored-bytes", "1K", "1024"}, Setting{"max-stored-bytes", "1024M", "1073741824"},
        Setting{"max-message-bytes", "64M", "67108864", "1073741824"}, Setting{"max-timers", "7", "7"},
        Setting{"max-counters", "8", "8"}, Setting{"max-notify-bytes", "64K", "65536"},
        Setting{"max-notify-bytes", "1024M", "1073741824", "2147483648"},
        Setting{"max-notify-bytes", "12M", "12582912"}, // and four times 1M: all there is
        Setting{"max-memory", "8M", "8388608"}, Setting{"max-memory", "2048M", "2147483648"},
        Setting{"max-connections", "9", "9"}, Setting{"max-connections", "1000000", "1000000"}),
    settingName);

TEST_P(EveryOption, isSetByTheCommandLine)
{
    const Setting& setting = GetParam();
    Lines arguments{"--" + setting.name + "=" + setting.text};
    Values expected = defaultsBut(setting.name, setting.value);
    if (!setting.memory.empty())
    {
        arguments.push_back("--max-memory=" + setting.memory);
        expected["max-memory"] = setting.memory;
    }
    EXPECT_EQ(read(arguments), expected);
}

TEST_P(EveryOption, isSetByTheFile)
{
    const Setting& setting = GetParam();
    EXPECT_EQ(readFile(setting.name + " = " + setting.text + "\n"), defaultsBut(setting.name, setting.value));
}

// ------------------------------------------------------------------------------------------- command line

TEST(CommandLine, nothingGivenIsTheDefaults)
{
    EXPECT_EQ(read({}), defaults);
    EXPECT_FALSE(commandLine({}).isCheck());
}

TEST(CommandLine, aFlagNeedsNoValue)
{
    EXPECT_EQ(read({"--allow-set-time"}), defaultsBut("allow-set-time", "true"));
}

TEST(CommandLine, aValueMayBeAnArgumentOfItsOwn)
{
    EXPECT_EQ(read({"--max-keys", "5"}), defaultsBut("max-keys", "5"));
}

TEST(CommandLine, stateKeysAddUp)
{
    EXPECT_EQ(read({"--state-keys", "a*", "--state-keys", "[b]"}), defaultsBut("state-keys", "<a*><[b]>"));
}

TEST(CommandLine, aCheckIsAskedFor)
{
    EXPECT_TRUE(commandLine({"--check-config"}).isCheck());
}

namespace
{

class WrongCommandLine : public testing::TestWithParam<Lines>
{
};

std::string commandLineName(const testing::TestParamInfo<Lines>& info)
{
    return testName(joined(info.param), info.index);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    CommandLine, WrongCommandLine,
    testing::Values(Lines{"--no-such-option"}, Lines{"stray"}, Lines{"--max-keys"}, Lines{"--max-keys", "0"},
                    Lines{"--max-keys", "1000001"}, Lines{"--max-keys=-1"}, Lines{"--max-keys=0x10"},
                    Lines{"--max-keys=-18446744073709551615"}, Lines{"--max-keys=99999999999999999999"},
                    Lines{"--max-keys=5 "}, Lines{"--max-keys=5K"},
                    Lines{"--max-keys", "1", "--max-keys", "2"}, Lines{"--log-level", "8"},
                    Lines{"--heartbeat", "3601"}, Lines{"--state-sync", "Full"}, Lines{"--allow-set-time=7"},
                    Lines{"--max-message-bytes", "1023"}, Lines{"--max-message-bytes", "65M"},
                    Lines{"--max-key-bytes", "K"}, Lines{"--max-key-bytes", "1k"},
                    Lines{"--max-key-bytes", "1.5K"}, Lines{"--max-stored-bytes", "18446744073709551615K"},
                    Lines{"--max-stored-bytes", "18014398509481985K"}, // 1K, were it to wrap
                    Lines{"--max-message-bytes", "32K"}, Lines{"--max-value-bytes", "2M"},
                    Lines{"--max-memory", "4M"}, Lines{"--max-memory", "8388607"},
                    Lines{"--max-notify-bytes", "12582913"}, Lines{"--max-message-bytes", "4M"},
                    Lines{"--state", ""}, Lines{"--config", ""}, Lines{"--state-keys", ""},
                    Lines{"--state-keys", "a", "stray"}),
    commandLineName);

TEST_P(WrongCommandLine, isRefusedWithCodeTwoAndAMessage)
{
    Lines arguments = GetParam();
    arguments.insert(arguments.begin(), "--check-config");
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.code, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.errors.find("\nRun with --help for more information.\n"), std::string::npos);
}

TEST(CommandLine, aMessageNamesOptionValueAndRange)
{
    const Outcome outcome = run({"--check-config", "--max-key-bytes", "2M"});
    EXPECT_EQ(linesOf(outcome.errors).front(), "--max-key-bytes: \"2M\" is not a size in 1..1M");
}

// So that a variable that is not set does not make a broker serve that was to be checked only.
TEST(CommandLine, anOptionIsNotTakenForTheMissingValueOfAnother)
{
    EXPECT_EQ(run({"--state=", "--check-config"}).code, 2);
    EXPECT_EQ(run({"--state", "--check-config"}).code, 2);
    EXPECT_EQ(run({"--state-keys", "--check-config"}).code, 2);
    EXPECT_EQ(run({"--config", "--check-config"}).code, 2);
}

// -------------------------------------------------------------------------------------------------- help

namespace
{

// The names of the options that the help lists, with what it says about each.
std::map<std::string, std::string> helpByName()
{
    std::map<std::string, std::string> result;
    std::string name;
    for (const std::string& line : linesOf(run({"--help"}).output))
    {
        const std::size_t dashes = line.find("--");
        if (startsWith(line, "  -") && dashes != std::string::npos)
            name = line.substr(dashes + 2, line.find(' ', dashes) - dashes - 2);
        if (!name.empty())
            result[name] += line + "\n";
    }
    return result;
}

} // namespace

TEST(Help, listsTheOptionsThatAreTestedHereAndNoOthers)
{
    std::set<std::string> expected{"config", "check-config", "help", "version"};
    for (const auto& value : defaults)
        expected.insert(value.first);
    std::set<std::string> listed;
    for (const auto& option : helpByName())
        listed.insert(option.first);
    EXPECT_EQ(listed, expected);
}

TEST(Help, tellsUnitRangeAndDefaultOfEachOption)
{
    const auto help = helpByName();
    const Values expected{{"config", "FILE"},
                          {"allow-set-time", "by default they may not"},
                          {"log-level", "LEVEL:0..7=5"},
                          {"heartbeat", "SECONDS:0..3600=5"},
                          {"state", "without it nothing is kept"},
                          {"state-sync", "off|normal|full=normal"},
                          {"state-keys", "without it all are kept"},
                          {"max-keys", "COUNT:1..1000000=10000"},
                          {"max-key-bytes", "BYTES:1..1M=255"},
                          {"max-value-bytes", "BYTES:1..64M=64K"},
                          {"max-stored-bytes", "BYTES:1K..1024M=4M"},
                          {"max-message-bytes", "BYTES:1K..64M=1M"},
                          {"max-timers", "COUNT:1..1000000=1000"},
                          {"max-counters", "COUNT:1..1000000=1000"},
                          {"max-notify-bytes", "BYTES:64K..1024M=4M"},
                          {"max-memory", "BYTES:4M..2048M=16M"},
                          {"max-connections", "COUNT:1..1000000=1000"}};
    for (const auto& [name, text] : expected)
        EXPECT_NE(help.at(name).find(text), std::string::npos) << help.at(name);
}

TEST(Help, goesToStandardOutputWithCodeZero)
{
    const Outcome outcome = run({"--help"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.errors, "");
}

TEST(Version, goesToStandardOutputWithCodeZero)
{
    const Outcome outcome = run({"--version"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_TRUE(startsWith(outcome.output, "statusbroker ")) << outcome.output;
    EXPECT_EQ(outcome.errors, "");
}

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

// Together with the command line they may fit.
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
        Mistake{"state-sync = FULL\n", "file:1: state-sync: \"FULL\" is none of off, normal, full"},
        Mistake{"allow-set-time = maybe\n", "file:1: allow-set-time: \"maybe\" is none of true, false"},
        Mistake{"allow-set-time = x\n", "file:1: allow-set-time: \"x\" is none of true, false"},
        Mistake{"state = --check-config\n", "file:1: state: \"--check-config\" is empty or an option"},
        Mistake{"\nmax-keys = " + std::string(60, '9') + "\n",
                "file:2: max-keys: \"" + std::string(40, '9') + "...\" is not a number in 1..1000000"},
        Mistake{"log-level = \xc3\xa4\n", "file:1: log-level: \"??\" is not a number in 0..7"},
        Mistake{std::string("\nmax-keys = 1\0\n", 15), "file:2: a byte that is no text"},
        Mistake{std::string("\0", 1), "file:1: a byte that is no text"},
        Mistake{"# \x1b[2J\n", "file:1: a byte that is no text"},
        Mistake{"state = a\rmax-keys = 1\n", "file:1: a byte that is no text"},
        Mistake{"state = a\x7f\n", "file:1: a byte that is no text"},
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
    std::mt19937 random(1); // NOLINT: the same each time
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
    const std::string unreadable = "/proc/self/mem"; // nothing is at its beginning
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
    EXPECT_EQ(outcome.output, "statusbroker: configuration is good\n");
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

// ------------------------------------------------------------------------------- the file that is delivered

namespace
{

// Without the mark in front of the lines that begin with it.
std::string uncommented(const std::string& mark)
{
    std::string text;
    for (const std::string& line : linesOf(contentsOf(STATUSBROKER_CONF)))
    {
        const bool isMarked =
            startsWith(line, mark) && line.size() > mark.size() && islower(line[mark.size()]) != 0;
        text += (isMarked ? line.substr(mark.size()) : line) + "\n";
    }
    return text;
}

} // namespace

TEST(DeliveredConfig, changesNothing)
{
    ASSERT_NE(contentsOf(STATUSBROKER_CONF), "");
    EXPECT_EQ(valuesOf(commandLine({"--config", STATUSBROKER_CONF}).readOptions()), defaults);
}

TEST(DeliveredConfig, showsTheDefaults)
{
    EXPECT_NE(uncommented("#"), contentsOf(STATUSBROKER_CONF));
    EXPECT_EQ(readFile(uncommented("#")), defaults);
}

TEST(DeliveredConfig, hasExamplesThatWork)
{
    const Values values = readFile(uncommented("# Example: "));
    EXPECT_NE(values.at("state"), "");
    EXPECT_NE(values.at("state-keys"), "");
}

TEST(DeliveredConfig, namesEveryOption)
{
    const std::string text = contentsOf(STATUSBROKER_CONF);
    for (const auto& [name, value] : defaults)
    {
        const std::string line = (value.empty() ? "\n# Example: " : "\n#") + name + " = ";
        EXPECT_NE(text.find(line), std::string::npos) << name;
    }
}
