// The broker's command line: its options set the same as the configuration file, and each mistake is
// reported.

#include <cstdlib>
#include <map>
#include <ostream>
#include <set>

#include "tests/broker/OptionsFixture.h"

// ------------------------------------------------------------------------------------------- every option

namespace
{

struct Setting
{
    std::string name;
    std::string text;
    std::string value;
    std::string memory = ""; // in bytes; raised because some sizes exceed the default
};

class EveryOption : public testing::TestWithParam<Setting>
{
};

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
        Setting{"policy", "/etc/x.d", "/etc/x.d"}, Setting{"state-sync", "full", "full"},
        Setting{"state-keys", "net.*", "<net.*>"}, Setting{"state-keys", "[a,b]", "<[a,b]>"},
        Setting{"state-keys", "{}", "<{}>"}, Setting{"max-keys", "1", "1"},
        Setting{"max-keys", "1000000", "1000000"}, Setting{"max-keys", "010", "10"},
        Setting{"max-key-bytes", "1", "1"}, Setting{"max-key-bytes", "1M", "1048576"},
        Setting{"max-value-bytes", "2K", "2048"}, Setting{"max-stored-bytes", "1K", "1024"},
        Setting{"max-stored-bytes", "1024M", "1073741824"},
        Setting{"max-message-bytes", "64M", "67108864", "1073741824"}, Setting{"max-timers", "7", "7"},
        Setting{"max-counters", "8", "8"}, Setting{"max-notify-bytes", "64K", "65536"},
        Setting{"max-notify-bytes", "1024M", "1073741824", "2147483648"},
        Setting{"max-notify-bytes", "12M", "12582912"}, // with four times 1M this fills the memory
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

namespace
{

// A service with a state folder, which the environment names.
class StateOfTheService : public ConfigFileTest
{
protected:
    StateOfTheService() { setenv("STATUSBROKER_STATE", "/run/service/state", 1); }
    ~StateOfTheService() override { unsetenv("STATUSBROKER_STATE"); }
};

} // namespace

TEST_F(StateOfTheService, isUsedWhereNoOtherIsNamed)
{
    EXPECT_EQ(read({}), defaultsBut("state", "/run/service/state"));
}

TEST_F(StateOfTheService, givesWayToTheConfiguration)
{
    write("state = /data/state\n");
    EXPECT_EQ(read({"--config", file()}), defaultsBut("state", "/data/state"));
}

TEST_F(StateOfTheService, givesWayToTheCommandLine)
{
    EXPECT_EQ(read({"--state", "/data/state"}), defaultsBut("state", "/data/state"));
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
                    Lines{"--max-stored-bytes", "18014398509481985K"}, // 1K if it wrapped around
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
    EXPECT_TRUE(startsWith(outcome.errors, "statusbroker: ")) << outcome.errors;
    EXPECT_NE(outcome.errors.find("\nRun with --help for more information.\n"), std::string::npos);
}

TEST(CommandLine, aMessageNamesOptionValueAndRange)
{
    const Outcome outcome = run({"--check-config", "--max-key-bytes", "2M"});
    EXPECT_EQ(linesOf(outcome.errors).front(),
              "statusbroker: --max-key-bytes: \"2M\" is not a size in 1..1M");
}

// Otherwise an unset variable would start a broker instead of checking its configuration.
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

// The options in the help, with the text about each.
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
                          {"policy", "Without it they may do everything"},
                          {"log-level", "LEVEL:0..7=5"},
                          {"heartbeat", "SECONDS:0..3600=5"},
                          {"state", "Without it nothing is kept"},
                          {"state-sync", "off|normal|full=normal"},
                          {"state-keys", "default: all"},
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
