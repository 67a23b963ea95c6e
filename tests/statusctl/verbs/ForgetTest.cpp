// forget, with a real broker and with a scripted broker.

#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ScriptedBroker.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class ForgetTest : public testing::Test
{
protected:
    ForgetTest()
    {
        statusctl({"set", "--literal", "a", "1", "b.c", "2", "b.d", "3", "b*", "4", "kept.e", "5"});
    }

    static std::string keys() { return statusctl({"-j", "dump", "--keys"}).output; }

    static Outcome missing(const std::string& names)
    {
        return failure(1, "statusctl: forget: not found, or denied by the policy: " + names);
    }

    std::string policy() const
    {
        writeFile(folder / "p", "[[rule]]\ndeny = \"forget\"\nkeys = \"kept.*\"\n");
        return folder / "p";
    }

    TemporaryFolder folder;
    BrokerProcess broker{{"--policy", policy()}};
};

} // namespace

TEST_F(ForgetTest, namedKeysAreGone)
{
    EXPECT_EQ(statusctl({"forget", "a", "b.c"}), success(""));
    EXPECT_EQ(keys(), "[\"b*\",\"b.d\",\"kept.e\"]\n");
}

TEST_F(ForgetTest, aGlobStandsForTheKeysThatMatch)
{
    EXPECT_EQ(statusctl({"forget", "b.?", "b.*", "b.c"}), success(""));
    EXPECT_EQ(keys(), "[\"a\",\"b*\",\"kept.e\"]\n");
}

TEST_F(ForgetTest, aGlobIsANameWhereThatIsAskedFor)
{
    EXPECT_EQ(statusctl({"forget", "--literal", "b*"}), success(""));
    EXPECT_EQ(keys(), "[\"a\",\"b.c\",\"b.d\",\"kept.e\"]\n");
}

TEST_F(ForgetTest, aBackslashTakesALetterAsItIs)
{
    EXPECT_EQ(statusctl({"forget", R"(b\*)"}), success(""));
    EXPECT_EQ(keys(), "[\"a\",\"b.c\",\"b.d\",\"kept.e\"]\n");
}

TEST_F(ForgetTest, whatIsNotThereIsToldAndTheRestIsGone)
{
    EXPECT_EQ(statusctl({"forget", "x", "a", "y*"}), missing(R"("y*", "x")"));
    EXPECT_EQ(keys(), "[\"b*\",\"b.c\",\"b.d\",\"kept.e\"]\n");
}

TEST_F(ForgetTest, whatThePolicyDeniesIsToldAndStays)
{
    EXPECT_EQ(statusctl({"forget", "*", "kept.e", "kept.*"}), missing(R"("kept.e")"));
    EXPECT_EQ(keys(), "[\"kept.e\"]\n");
}

TEST_F(ForgetTest, manyKeysAreForgottenAtOnce)
{
    Words words{"set"};
    for (int number = 0; number < 300; ++number)
        words.insert(words.end(), {"many.key.with.a.name.number." + std::to_string(number), "1"});
    statusctl(words);
    EXPECT_EQ(statusctl({"forget", "many.*", "a", "b*"}), success(""));
    EXPECT_EQ(keys(), "[\"kept.e\"]\n");
}

TEST_F(ForgetTest, timersAndCountersHaveNamesOfTheirOwn)
{
    statusctl({"set", "--literal", "t*", "1", "tx", "1"});
    statusctl({"timer", "start", "--literal", "t*"});
    statusctl({"timer", "start", "tu"});
    statusctl({"counter", "set", "--literal", "t*", "7"});
    EXPECT_EQ(statusctl({"forget", "--literal", "--timer", "t*"}), success(""));
    EXPECT_EQ(statusctl({"timer", "show", "--literal", "t*"}), success("0\n"));
    EXPECT_NE(statusctl({"-j", "timer", "show", "tu"}).output.find(R"("lastStarted":1)"), std::string::npos);
    EXPECT_EQ(statusctl({"counter", "get", "--literal", "t*"}), success("7\n"));
    EXPECT_EQ(statusctl({"forget", "--literal", "--counter", "t*"}), success(""));
    EXPECT_EQ(statusctl({"counter", "get", "--literal", "t*"}), success("0\n"));
    EXPECT_EQ(statusctl({"get", "--literal", "t*"}), success("1\n"));
    EXPECT_EQ(statusctl({"forget", "--literal", "--timer", "t*", "tu"}), missing(R"("t*")"));
    EXPECT_EQ(statusctl({"forget", "--timer", "--counter", "t"}).code, 2);
}

TEST_F(ForgetTest, asJsonTheForgottenNamesArePrinted)
{
    EXPECT_EQ(statusctl({"-j", "forget", "b.d", "a"}), success("{\"forgotten\":[\"b.d\",\"a\"]}\n"));
    const Outcome outcome = statusctl({"-j", "forget", "kept.e", "b.c"});
    EXPECT_EQ(outcome.output, "{\"forgotten\":[\"b.c\"]}\n");
    EXPECT_EQ(outcome.code, 1) << outcome;
    EXPECT_NE(outcome.errors.find(R"("verb":"forget")"), std::string::npos) << outcome;
}

TEST(ForgetFaultsTest, aBrokerThatCannotForgetIsExitCode5)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(ScriptedBroker::Frames{"{}"});
    EXPECT_EQ(statusctl({"forget", "a"}), failure(5, "statusctl: forget: this broker cannot forget names"));
    for (const char* reply : {"nonsense", R"({"forgotten":[5]})"})
    {
        broker.answerWith(ScriptedBroker::Frames{reply});
        EXPECT_EQ(statusctl({"forget", "a"}),
                  failure(5, std::string("statusctl: forget: bad reply from the broker: ") + reply));
    }
}
