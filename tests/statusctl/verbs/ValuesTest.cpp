// get, set and reset, with a real broker.

#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class ValuesTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
};

} // namespace

TEST_F(ValuesTest, oneKeyPrintsItsValueAlone)
{
    EXPECT_EQ(statusctl({"set", "door", "open"}), success(""));
    EXPECT_EQ(statusctl({"get", "door"}), success("open\n"));
}

TEST_F(ValuesTest, severalKeysPrintTheirNamesInTheOrderAskedFor)
{
    EXPECT_EQ(statusctl({"set", "a", "1", "b", "2"}), success(""));
    EXPECT_EQ(statusctl({"get", "b", "a"}), success("b=2\na=1\n"));
}

TEST_F(ValuesTest, theValueOfOneKeyGoesToAProgramByteForByte)
{
    statusctl({"set", "a", "x\u202ey\x1b"});
    EXPECT_EQ(statusctl({"get", "a"}), success("x\u202ey\x1b\n"));
}

TEST_F(ValuesTest, hiddenCharactersInNamesAndValuesAreEscaped)
{
    statusctl({"set", "a\u200b", "x\u202ey\x1b"});
    EXPECT_EQ(statusctl({"dump"}), success("a\\xe2\\x80\\x8b=x\\xe2\\x80\\xaey\\x1b\n"));
    EXPECT_EQ(statusctl({"dump", "--keys"}), success("a\\xe2\\x80\\x8b\n"));
    EXPECT_EQ(statusctl({"get", "\u2066nix"}),
              failure(3, "statusctl: get: no value for \"\\xe2\\x81\\xa6nix\""));
}

TEST_F(ValuesTest, aKeyThatIsNotThereIsExitCode3AndPrintsNothing)
{
    statusctl({"set", "a", "1"});
    EXPECT_EQ(statusctl({"get", "nix"}), failure(3, "statusctl: get: no value for \"nix\""));
    EXPECT_EQ(statusctl({"get", "a", "nix", "nox"}),
              failure(3, "statusctl: get: no value for \"nix\", \"nox\""));
}

TEST_F(ValuesTest, defaultStandsInForAKeyThatIsNotThere)
{
    statusctl({"set", "a", "1"});
    EXPECT_EQ(statusctl({"get", "nix", "--default", "none"}), success("none\n"));
    EXPECT_EQ(statusctl({"get", "a", "nix", "--default", ""}), success("a=1\nnix=\n"));
}

TEST_F(ValuesTest, jsonHoldsTheValuesAsDocumented)
{
    statusctl({"set", "a", "1", "b", "x\"y"});
    EXPECT_EQ(statusctl({"get", "a", "b", "--json"}), success(R"({"values":{"a":"1","b":"x\"y"}})"
                                                              "\n"));
    EXPECT_EQ(statusctl({"-j", "get", "a"}), success(R"({"values":{"a":"1"}})"
                                                     "\n"));
    EXPECT_EQ(statusctl({"--json=pretty", "get", "a"}).output.find("{\n  \"values\""), 0U);
}

TEST_F(ValuesTest, aDashReadsTheValueFromStandardInputAsItIs)
{
    EXPECT_EQ(statusctl({"set", "report", "-"}, "two\nlines\n"), success(""));
    EXPECT_EQ(statusctl({"get", "report"}), success("two\nlines\n\n"));
    EXPECT_EQ(statusctl({"get", "report", "nix", "--default", "-"}),
              success("report=two\\nlines\\n\nnix=-\n"));
}

TEST_F(ValuesTest, aValueMayBeginWithADashBehindTwo)
{
    EXPECT_EQ(statusctl({"set", "--", "offset", "-5"}), success(""));
    EXPECT_EQ(statusctl({"get", "offset"}), success("-5\n"));
}

TEST_F(ValuesTest, theTwoDashesMayStandBehindTheKey)
{
    EXPECT_EQ(statusctl({"set", "note", "--", "-text"}), success(""));
    EXPECT_EQ(statusctl({"set", "a", "1", "--", "b", "-5"}), success(""));
    EXPECT_EQ(statusctl({"get", "note", "a", "b"}), success("note=-text\na=1\nb=-5\n"));
}

TEST_F(ValuesTest, aListInBracketsIsOneValue)
{
    EXPECT_EQ(statusctl({"set", "list", "[1,2]", "one", "[1]"}), success(""));
    EXPECT_EQ(statusctl({"get", "list", "one"}), success("list=[1,2]\none=[1]\n"));
}

TEST_F(ValuesTest, withoutABarrierTheValueStillArrives)
{
    EXPECT_EQ(statusctl({"set", "--no-sync", "door", "shut"}), success(""));
    EXPECT_EQ(statusctl({"wait", "door=shut", "-t", "20"}), success("shut\n"));
}

TEST_F(ValuesTest, whatTheBrokerRefusesIsAFailure)
{
    const Outcome outcome = statusctl({"set", std::string(300, 'k'), "x"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(outcome.errors.find("the broker refused"), std::string::npos) << outcome;
    EXPECT_EQ(outcome.output, "");
}

TEST(SetTest, aRefusalTellsWhatWasTakenAndWhatWasNot)
{
    const TemporaryFolder folder;
    writeFile(folder / "p", "[[rule]]\ndeny = \"post\"\nkeys = \"f*\"\n");
    const BrokerProcess broker({"--policy", folder / "p"});
    EXPECT_EQ(
        statusctl({"set", "a", "9", "f", "6", "b", "1", "fan", "on"}),
        failure(1, "statusctl: set: the broker refused \"f\", \"fan\" and took \"a\", \"b\"; see its log"));
    EXPECT_EQ(statusctl({"dump"}), success("a=9\nb=1\n"));
    const Outcome outcome = statusctl({"-j", "set", "a", "8", "f", "6"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.errors.find(R"("refused":["f"],"taken":["a"],"verb":"set")"), std::string::npos)
        << outcome;
    EXPECT_EQ(statusctl({"set", "f", "6"}),
              failure(1, "statusctl: set: the broker refused \"f\"; see its log"));
}

TEST_F(ValuesTest, whatIsNotUtf8IsRefusedBeforeItIsPosted)
{
    EXPECT_EQ(
        statusctl({"set", "a", "x\xc3("}),
        failure(1, "statusctl: set: \"x\\xc3(\" is not UTF-8; encode it, since only UTF-8 can be posted"));
    for (const Words& words :
         std::vector<Words>{{"set", "k\xff", "1"}, {"reset", "k\xff"}, {"event", "k\xff"}})
        EXPECT_EQ(statusctl(words).code, 1) << words[0];
    EXPECT_EQ(statusctl({"dump"}), success(""));
}

TEST_F(ValuesTest, resetEmptiesValues)
{
    statusctl({"set", "a", "1", "b", "2"});
    EXPECT_EQ(statusctl({"reset", "a", "b"}), success(""));
    EXPECT_EQ(statusctl({"get", "a", "b"}), success("a=\nb=\n"));
}

// The library loses the end of a message whose length is a multiple of 512. The tool sends two messages
// instead, or refuses.
TEST_F(ValuesTest, noLengthLosesAnything)
{
    for (std::size_t length = 440; length < 480; ++length)
    {
        const std::string value(length, 'v');
        const Outcome outcome = statusctl({"set", "a", value});
        if (outcome.code == 0)
            EXPECT_EQ(statusctl({"get", "a"}), success(value + "\n"));
        else
            EXPECT_NE(outcome.errors.find("cannot take a message of exactly 512 bytes"), std::string::npos)
                << outcome;
        EXPECT_EQ(statusctl({"set", "a", value, "b", "2"}), success(""));
        EXPECT_EQ(statusctl({"get", "a", "b"}), success("a=" + value + "\nb=2\n"));
    }
}

// Otherwise a socket would take the descriptor, and receive the output.
TEST_F(ValuesTest, aClosedStandardOutputIsAFailure)
{
    statusctl({"set", "a", "1"});
    TestProcess get({"/bin/sh", "-c", "exec \"$0\" get a >&-", STATUSCTL});
    EXPECT_EQ(get.waitForExit(), 1);
    EXPECT_EQ(get.errors(), "statusctl: get: cannot write: Bad file descriptor\n");
}

TEST_F(ValuesTest, standardInputIsReadForOneValueOnly)
{
    EXPECT_EQ(statusctl({"set", "a", "-", "b", "-"}, "x"),
              failure(2, "statusctl: set: only one value can be read from standard input"));
}
