#include "broker/CommandLine.h"

#include <gtest/gtest.h>

#include "tests/support/TemporaryFolder.h"

namespace
{

std::string errorOf(const std::string& text)
{
    try
    {
        parseConfig(text, "file");
    }
    catch (const ConfigError& error)
    {
        return error.what();
    }
    return "";
}

CommandLine commandLine(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "statusbroker");
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    return {static_cast<int>(pointers.size()), pointers.data()};
}

Options options(const std::vector<std::string>& arguments)
{
    return commandLine(arguments).readOptions();
}

// What it says and the exit code, of a command line that ends the program.
std::pair<std::string, int> exitOf(const std::vector<std::string>& arguments)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int code = -1;
    try
    {
        commandLine(arguments);
    }
    catch (const CommandLine::Exit& exit)
    {
        code = exit.code;
    }
    const std::string output = testing::internal::GetCapturedStdout();
    return {output + testing::internal::GetCapturedStderr(), code};
}

} // namespace

TEST(Config, anEmptyOneIsTheDefaults)
{
    const Options read = parseConfig("", "file");
    EXPECT_EQ(read.limits.keys, 10000U);
    EXPECT_EQ(read.limits.keyBytes, 255U);
    EXPECT_EQ(read.limits.valueBytes, 65536U);
    EXPECT_EQ(read.limits.messageBytes, 1048576U);
    EXPECT_EQ(read.limits.timers, 1000U);
    EXPECT_EQ(read.limits.counters, 1000U);
    EXPECT_EQ(read.heartbeat.count(), 5);
    EXPECT_EQ(read.logLevel, 5);
    EXPECT_FALSE(read.allowSetTime);
    EXPECT_TRUE(read.stateFile.empty());
    EXPECT_EQ(read.stateSync, StateSync::Normal);
}

TEST(Config, everyOptionIsRead)
{
    const Options read = parseConfig("# a comment\r\n"
                                     "\n"
                                     "allow-set-time = true\n"
                                     "log-level=7\n"
                                     "  heartbeat   =   0  \n"
                                     "state = /a file/with = in it\n"
                                     "state-sync = full\n"
                                     "state-keys = net.*\n"
                                     "state-keys = disk\n"
                                     "max-keys = 1\n"
                                     "max-key-bytes = 2\n"
                                     "max-value-bytes = 3K\n"
                                     "max-stored-bytes = 4M\n"
                                     "max-message-bytes = 5M\n"
                                     "max-timers = 6\n"
                                     "max-counters = 7\n"
                                     "max-notify-bytes = 8M\n"
                                     "max-connections = 9", // no newline at the end
                                     "file");
    EXPECT_TRUE(read.allowSetTime);
    EXPECT_EQ(read.logLevel, 7);
    EXPECT_EQ(read.heartbeat.count(), 0);
    EXPECT_EQ(read.stateFile, "/a file/with = in it");
    EXPECT_EQ(read.stateSync, StateSync::Full);
    EXPECT_EQ(read.stateKeys, (std::vector<std::string>{"net.*", "disk"}));
    EXPECT_EQ(read.limits.keys, 1U);
    EXPECT_EQ(read.limits.keyBytes, 2U);
    EXPECT_EQ(read.limits.valueBytes, 3072U);
    EXPECT_EQ(read.limits.storedBytes, 4U * 1024 * 1024);
    EXPECT_EQ(read.limits.messageBytes, 5U * 1024 * 1024);
    EXPECT_EQ(read.limits.timers, 6U);
    EXPECT_EQ(read.limits.counters, 7U);
    EXPECT_EQ(read.limits.notifyBytes, 8U * 1024 * 1024);
    EXPECT_EQ(read.limits.connections, 9U);
}

TEST(Config, anErrorNamesFileAndLine)
{
    EXPECT_EQ(errorOf("\n# comment\nmax-keys 5\n"), "file:3: not of the form \"name = value\"");
    EXPECT_EQ(errorOf("max-keys = 5\nmax-key = 5\n"), "file:2: unknown name \"max-key\"");
    EXPECT_EQ(errorOf("max-keys = 5\n\nmax-keys = 6\n"), "file:3: \"max-keys\" is given twice");
    EXPECT_EQ(errorOf("max-keys =\n"), "file:1: no value for \"max-keys\"");
    EXPECT_EQ(errorOf(" = 5\n"), "file:1: unknown name \"\"");
}

TEST(Config, aValueOutOfRangeIsRefused)
{
    for (const char* line :
         {"max-keys = 0", "max-keys = 1000001", "max-keys = -1", "max-keys = x", "max-value-bytes = 1T",
          "max-value-bytes = 99999999999999999999", "heartbeat = 3601", "heartbeat = -1", "log-level = 8",
          "log-level = 5x", "state-sync = sometimes", "max-message-bytes = 1023", "max-notify-bytes = 1K",
          "allow-set-time = maybe"})
    {
        const std::string error = errorOf(std::string("\n") + line);
        EXPECT_EQ(error.rfind("file:2: ", 0), 0U) << line << ": " << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

TEST(Config, whatServesTheCommandLineOnlyIsUnknown)
{
    for (const char* name : {"config", "check-config", "help", "version"})
        EXPECT_EQ(errorOf(std::string(name) + " = 1"), std::string("file:1: unknown name \"") + name + "\"");
}

TEST(Config, aValueCannotBeLongerThanAMessage)
{
    EXPECT_NE(errorOf("max-value-bytes = 2M"), "");
    EXPECT_EQ(errorOf("max-value-bytes = 2M\nmax-message-bytes = 4M"), "");
}

TEST(Config, bytesThatAreNoTextAreRefused)
{
    EXPECT_EQ(errorOf(std::string("max-keys = 5\0\n", 14)), "file:1: a byte that is no text");
    EXPECT_NE(errorOf("\xff\xfe\x01"), "");
    EXPECT_NE(errorOf(std::string(100000, 'x')), "");
}

TEST(ConfigFile, isReadAndTheCommandLineWins)
{
    const TemporaryFolder folder;
    writeFile(folder / "conf", "max-keys = 5\nmax-timers = 6\nstate-keys = a\n");
    const Options read = options({"--config", folder / "conf", "--max-keys=7", "--state-keys", "b"});
    EXPECT_EQ(read.limits.keys, 7U);
    EXPECT_EQ(read.limits.timers, 6U);
    EXPECT_EQ(read.stateKeys, std::vector<std::string>{"b"});
}

TEST(ConfigFile, isReadAgainWhenItHasChanged)
{
    const TemporaryFolder folder;
    writeFile(folder / "conf", "max-keys = 5\n");
    const CommandLine line = commandLine({"--config", folder / "conf"});
    EXPECT_EQ(line.readOptions().limits.keys, 5U);
    writeFile(folder / "conf", "max-keys = 6\n");
    EXPECT_EQ(line.readOptions().limits.keys, 6U);
    writeFile(folder / "conf", "max-keys = x\n");
    EXPECT_THROW(line.readOptions(), ConfigError);
}

TEST(ConfigFile, thatCannotBeReadIsAnError)
{
    const TemporaryFolder folder;
    EXPECT_THROW(options({"--config", folder / "none"}), ConfigError);
    EXPECT_THROW(options({"--config", folder / ""}), ConfigError);
    writeFile(folder / "long", std::string(64 * 1024, '\n'));
    EXPECT_NO_THROW(options({"--config", folder / "long"}));
    writeFile(folder / "long", std::string(64 * 1024 + 1, '\n'));
    EXPECT_THROW(options({"--config", folder / "long"}), ConfigError);
}

TEST(Arguments, wrongOnesEndWithCodeTwo)
{
    EXPECT_EQ(exitOf({"--unknown"}).second, 2);
    EXPECT_EQ(exitOf({"--max-keys=0"}).second, 2);
    EXPECT_EQ(exitOf({"--max-value-bytes=2M"}).second, 2);
    EXPECT_EQ(exitOf({"surplus"}).second, 2);
}

TEST(Arguments, helpNamesEveryOption)
{
    const auto [text, code] = exitOf({"--help"});
    EXPECT_EQ(code, 0);
    for (const char* name : {"--config", "--check-config", "--log-level", "--allow-set-time", "--heartbeat",
                             "--state ", "--state-sync", "--state-keys", "--max-keys", "--max-key-bytes",
                             "--max-value-bytes", "--max-stored-bytes", "--max-message-bytes", "--max-timers",
                             "--max-counters", "--max-notify-bytes", "--max-connections", "--version"})
        EXPECT_NE(text.find(name), std::string::npos) << name;
}

TEST(Arguments, checkingIsAskedFor)
{
    EXPECT_FALSE(commandLine({}).isCheck());
    EXPECT_TRUE(commandLine({"--check-config"}).isCheck());
}
