// The command line itself: help, wrong usage, output styles.

#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"

namespace
{

const Words verbs{"get",     "set",  "reset", "dump",   "load",   "watch", "wait",   "event", "timer",
                  "counter", "ping", "stats", "record", "replay", "top",   "doctor", "forget"};

} // namespace

TEST(ArgumentsTest, helpNamesEveryCommand)
{
    const Outcome outcome = statusctl({"--help"});
    EXPECT_EQ(outcome.code, 0);
    for (const std::string& verb : verbs)
        EXPECT_NE(outcome.output.find("\n  " + verb + " "), std::string::npos) << verb;
}

TEST(ArgumentsTest, everyCommandHasHelpWithAnExample)
{
    for (const std::string& verb : verbs)
    {
        const Outcome outcome = statusctl({verb, "--help"});
        EXPECT_EQ(outcome.code, 0) << verb;
        EXPECT_NE(outcome.output.find("Examples:\n  statusctl "), std::string::npos) << verb;
    }
}

TEST(ArgumentsTest, watchTellsWhatAGlobCosts)
{
    EXPECT_NE(statusctl({"watch", "--help"}).output.find("costs a second subscription"), std::string::npos);
}

TEST(ArgumentsTest, usageNamesTheCommandThatIsRun)
{
    const auto usage = [](const std::string& verb)
    {
        const std::string help = statusctl({verb, "--help"}).output;
        const std::size_t begin = help.find("Usage: ");
        return help.substr(begin, help.find('\n', begin) - begin);
    };
    EXPECT_EQ(usage("sandbox"), "Usage: statusctl sandbox [OPTIONS] -- COMMAND...");
    EXPECT_EQ(usage("watch"), "Usage: statusctl watch [OPTIONS] [KEY...] [-- COMMAND...]");
    EXPECT_EQ(usage("set"), "Usage: statusctl set [OPTIONS] KEY VALUE... [--while -- COMMAND...]");
    EXPECT_EQ(usage("get"), "Usage: statusctl get [OPTIONS] KEY...");
    EXPECT_NE(statusctl({"counter", "set", "--help"})
                  .output.find("Usage: statusctl counter set [OPTIONS] NAME N\n"),
              std::string::npos);
}

TEST(ArgumentsTest, helpHasNoWordsOfTheParser)
{
    const Words commands = {"get",    "show",        "set",        "reset",       "forget",
                            "dump",   "load",        "watch",      "wait",        "event",
                            "ping",   "stats",       "record",     "replay",      "top",
                            "doctor", "clients",     "may",        "sandbox",     "completion",
                            "help",   "timer start", "timer show", "counter add", "counter set"};
    for (const std::string& command : commands)
    {
        Words words{"help"};
        const std::size_t blank = command.find(' ');
        words.push_back(command.substr(0, blank));
        if (blank != std::string::npos)
            words.push_back(command.substr(blank + 1));
        const Outcome outcome = statusctl(words);
        EXPECT_EQ(outcome.code, 0) << command;
        for (const char* word : {" TEXT", "UINT", "INT", "FLOAT", "REQUIRED", ":{"})
            EXPECT_EQ(outcome.output.find(word), std::string::npos) << command << ": " << word;
    }
}

TEST(ArgumentsTest, versionIsPrinted)
{
    EXPECT_EQ(statusctl({"--version"}).output.find("statusctl "), 0U);
}

TEST(ArgumentsTest, wrongUsageIsOneLineAndExitCode2)
{
    const std::vector<Words> wrong{{},
                                   {"frobnicate"},
                                   {"--frob"},
                                   {"get"},
                                   {"get", "--frob", "a"},
                                   {"set", "a"},
                                   {"set", "a", "1", "b"},
                                   {"-t", "soon", "get", "a"},
                                   {"-t", "-1", "get", "a"},
                                   {"watch", "-n", "0"},
                                   {"ping", "-n", "x"},
                                   {"replay", "f", "--speed", "-1"},
                                   {"replay", "f", "--speed", "nan"},
                                   {"replay", "f", "--speed", "1e-9"},
                                   {"timer"},
                                   {"timer", "melt", "a"}};
    for (const Words& words : wrong)
    {
        const Outcome outcome = statusctl(words);
        EXPECT_EQ(outcome.code, 2) << outcome;
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors.find("statusctl: "), 0U) << outcome;
        EXPECT_EQ(outcome.errors.find('\n'), outcome.errors.size() - 1) << outcome;
    }
}

TEST(ArgumentsTest, errorsAreObjectsWithJson)
{
    const Outcome outcome = statusctl({"set", "a", "--json"});
    EXPECT_EQ(outcome.errors, "{\"error\":{\"code\":2,\"reason\":\"missing value after \\\"a\\\" "
                              "(usage: set KEY VALUE...)\",\"verb\":\"set\"}}\n");
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.code, 2);
}

TEST(ArgumentsTest, anUnknownCommandIsNamed)
{
    EXPECT_EQ(statusctl({"foo"}), failure(2, "statusctl: unknown command \"foo\" (see statusctl --help)"));
    EXPECT_EQ(statusctl({"--foo"}), failure(2, "statusctl: unknown option \"--foo\" (see statusctl --help)"));
    EXPECT_EQ(statusctl({"timer", "melt", "a"}),
              failure(2, "statusctl: timer: unknown command \"melt\" (see statusctl timer --help)"));
}

TEST(ArgumentsTest, aMisspelledCommandIsCorrected)
{
    EXPECT_EQ(
        statusctl({"sett", "door", "open"}),
        failure(2, "statusctl: unknown command \"sett\", did you mean \"set\"? (see statusctl --help)"));
    EXPECT_EQ(statusctl({"timer", "strat", "a"}),
              failure(2, "statusctl: timer: unknown command \"strat\", did you mean \"start\"? "
                         "(see statusctl timer --help)"));
}

TEST(ArgumentsTest, aMissingNameIsReported)
{
    EXPECT_EQ(statusctl({"get"}), failure(2, "statusctl: get: missing KEY (see statusctl get --help)"));
    EXPECT_EQ(statusctl({"timer", "start"}),
              failure(2, "statusctl: timer: missing NAME (see statusctl timer --help)"));
}

TEST(ArgumentsTest, aMissingValueOfAnOptionIsReported)
{
    EXPECT_EQ(statusctl({"watch", "--stale"}),
              failure(2, "statusctl: watch: --stale needs a duration, such as 5, 500ms or 2m"));
    EXPECT_EQ(statusctl({"watch", "-n"}), failure(2, "statusctl: watch: -n needs a value: -n COUNT"));
}

TEST(ArgumentsTest, aNumberOutOfRangeIsReported)
{
    EXPECT_EQ(statusctl({"watch", "-n", "0"}), failure(2, "statusctl: watch: -n must be 1 or more"));
    EXPECT_EQ(statusctl({"counter", "add", "a", "b"}),
              failure(2, "statusctl: counter: N must be a number from 1 to 1000000"));
    EXPECT_EQ(statusctl({"counter", "add", "a", "1000001"}),
              failure(2, "statusctl: counter: N must be a number from 1 to 1000000"));
    EXPECT_EQ(statusctl({"counter", "set", "a", "4294967296"}),
              failure(2, "statusctl: counter: N must be a number from 0 to 4294967295"));
    EXPECT_EQ(statusctl({"replay", "f", "--speed", "-1"}),
              failure(2, "statusctl: replay: --speed must be 0, or from 0.001 to 1000000"));
}

TEST(ArgumentsTest, aWordThatIsNoChoiceIsReported)
{
    EXPECT_EQ(statusctl({"watch", "--only", "values"}),
              failure(2, "statusctl: watch: --only must be status or event"));
    EXPECT_EQ(statusctl({"completion", "csh"}),
              failure(2, "statusctl: completion: SHELL must be bash, zsh or fish"));
}

TEST(ArgumentsTest, anOptionGivenTwiceIsReported)
{
    EXPECT_EQ(statusctl({"ping", "-n", "1", "-n", "2"}),
              failure(2, "statusctl: ping: -n may be given only once"));
}

TEST(ArgumentsTest, aValueOfAFlagIsReported)
{
    EXPECT_EQ(statusctl({"get", "a", "--long=x"}), failure(2, "statusctl: get: --long takes no value"));
}

TEST(ArgumentsTest, aNameIsNotReadAsATextOfTheParser)
{
    EXPECT_EQ(statusctl({"set", "x: must y"}),
              failure(2, "statusctl: set: missing value after \"x: must y\" (usage: set KEY VALUE...)"));
}

TEST(ArgumentsTest, setExplainsAnEqualsSign)
{
    EXPECT_EQ(statusctl({"set", "door=open"}),
              failure(2, "statusctl: set: missing value after \"door=open\" (usage: set KEY VALUE...); "
                         "write: set door open"));
}

TEST(ArgumentsTest, waitExplainsBlanksInACondition)
{
    const auto mistake = [](const Words& words, const std::string& at, const std::string& remedy)
    {
        Words command{"wait"};
        command.insert(command.end(), words.begin(), words.end());
        EXPECT_EQ(statusctl(command), failure(2, "statusctl: wait: missing key in \"" + at + "\"; write \"" +
                                                     remedy + "\", without blanks"));
    };
    mistake({"door", "=", "open"}, "=", "door=open");
    mistake({"lamp", "door", "!=", "open"}, "!=", "door!=open");
    mistake({"door", "=open"}, "=open", "door=open");
    mistake({"door", "="}, "=", "door=");
    EXPECT_EQ(statusctl({"wait", "=open"}), failure(2, "statusctl: wait: missing key in \"=open\""));
}

TEST(ArgumentsTest, aMissingCommandIsReported)
{
    EXPECT_EQ(statusctl({}), failure(2, "statusctl: missing command (see statusctl --help)"));
    EXPECT_EQ(statusctl({"timer"}),
              failure(2, "statusctl: timer: missing command (see statusctl timer --help)"));
}

TEST(ArgumentsTest, aWordTooManyIsNamed)
{
    EXPECT_EQ(statusctl({"ping", "--", "-x"}), failure(2, "statusctl: ping: unexpected argument \"-x\""));
}

TEST(ArgumentsTest, anUnknownJsonStyleIsWrongUsage)
{
    EXPECT_EQ(statusctl({"--json=nice", "get", "a"}).code, 2);
}

TEST(ArgumentsTest, sharedOptionsMayStandBeforeOrBehindTheCommand)
{
    const BrokerProcess broker;
    statusctl({"set", "a", "1"});
    const Outcome json = success("{\"values\":{\"a\":\"1\"}}\n");
    EXPECT_EQ(statusctl({"-j", "-t", "3", "get", "a"}), json);
    EXPECT_EQ(statusctl({"get", "-j", "a", "-t", "3"}), json);
}

TEST(ArgumentsTest, thereAreNoColoursInAPipe)
{
    const BrokerProcess broker;
    TestProcess watch(commandOf({"watch"}));
    EXPECT_EQ(watch.readLine().value_or("\x1b").find('\x1b'), std::string::npos);
}
