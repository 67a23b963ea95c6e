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
