// dump and load, with a real broker.

#include <algorithm>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class TransferTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
    TemporaryFolder mFolder;
};

} // namespace

TEST_F(TransferTest, dumpPrintsAllValuesSorted)
{
    statusctl({"set", "c", "3", "a", "1", "b", "two\nlines"});
    EXPECT_EQ(statusctl({"dump"}), success("a=1\nb=two\\nlines\nc=3\n"));
}

TEST_F(TransferTest, dumpTakesGlobs)
{
    statusctl({"set", "net.rx", "1", "net.tx", "2", "disk", "3"});
    EXPECT_EQ(statusctl({"dump", "net.*"}), success("net.rx=1\nnet.tx=2\n"));
    EXPECT_EQ(statusctl({"dump", "disk", "*.tx"}), success("disk=3\nnet.tx=2\n"));
    EXPECT_EQ(statusctl({"dump", "nix*"}), success(""));
}

TEST_F(TransferTest, dumpPrintsKeysAlone)
{
    statusctl({"set", "a", "1", "b", "2"});
    EXPECT_EQ(statusctl({"dump", "--keys"}), success("a\nb\n"));
    EXPECT_EQ(statusctl({"dump", "--keys", "--json"}), success("[\"a\",\"b\"]\n"));
}

TEST_F(TransferTest, loadPutsBackWhatDumpHasWritten)
{
    statusctl({"set", "a", "1", "b", "two\nlines", "c", "Tür \"x\""});
    const std::string dumped = statusctl({"dump", "--json"}).output;
    writeFile(mFolder / "dump.json", dumped);
    statusctl({"set", "a", "other", "b", "other", "c", ""});
    EXPECT_EQ(statusctl({"load", mFolder / "dump.json"}), success("3\n"));
    EXPECT_EQ(statusctl({"dump", "--json"}).output, dumped);
}

TEST_F(TransferTest, loadReadsStandardInput)
{
    EXPECT_EQ(statusctl({"load", "-", "--json"}, R"({"values":{"a":"1"}})"), success("{\"loaded\":1}\n"));
    EXPECT_EQ(statusctl({"get", "a"}), success("1\n"));
}

// Far more than the transport takes without confirmation.
TEST_F(TransferTest, loadLosesNothingOfALargeFile)
{
    std::string text;
    for (int number = 0; number < 9000; ++number)
        text += (number == 0 ? "" : ",") + ("\"key." + std::to_string(number)) + "\":\"" +
                std::string(200, 'x') + "\"";
    EXPECT_EQ(statusctl({"-t", "60", "load", "-"}, "").code, 1);
    writeFile(mFolder / "large.json", "{\"values\":{" + text + "}}");
    EXPECT_EQ(statusctl({"-t", "60", "load", mFolder / "large.json"}), success("9000\n"));
    const std::string keys = statusctl({"dump", "--keys"}).output;
    EXPECT_EQ(std::count(keys.begin(), keys.end(), '\n'), 9000);
}

TEST_F(TransferTest, aDryRunReadsAndChecksOnly)
{
    EXPECT_EQ(statusctl({"load", "--dry-run", "-"}, R"({"values":{"a":"1"}})"), success("1\n"));
    EXPECT_EQ(statusctl({"dump"}), success(""));
}

TEST_F(TransferTest, aFileOfAnotherShapeIsRefusedAndPostsNothing)
{
    EXPECT_EQ(statusctl({"load", "-"}, R"({"values":{"a":"1","b":2}})"),
              failure(1, "statusctl: load: the value of \"b\" is not a string"));
    EXPECT_EQ(statusctl({"load", mFolder / "none"}),
              failure(1, "statusctl: load: cannot read " + mFolder / "none" + ": No such file or directory"));
    EXPECT_EQ(statusctl({"dump"}), success(""));
}

TEST_F(TransferTest, quietLeavesTheCountOut)
{
    EXPECT_EQ(statusctl({"-q", "load", "-"}, R"({"values":{"a":"1"}})"), success(""));
}

// ---- timers and counters

TEST_F(TransferTest, dumpPrintsTimersAndCountersIfAsked)
{
    statusctl({"set", "a", "1"});
    statusctl({"timer", "stop", "boot"});
    statusctl({"counter", "set", "starts", "3"});
    EXPECT_EQ(statusctl({"dump"}), success("a=1\n"));
    EXPECT_EQ(statusctl({"dump", "--all"}), success("a=1\ntimer boot=0\ncounter starts=3\n"));
    EXPECT_EQ(statusctl({"dump", "--all", "st*"}), success("counter starts=3\n"));
    EXPECT_EQ(statusctl({"dump", "--all", "--json"}),
              success("{\"counters\":{\"starts\":3},"
                      "\"timers\":{\"boot\":{\"elapsed\":0,\"lastStarted\":0,\"running\":false}},"
                      "\"values\":{\"a\":\"1\"}}\n"));
    EXPECT_EQ(statusctl({"dump", "--all", "--keys"}).code, 2);
}

TEST_F(TransferTest, loadPutsTimersAndCountersBack)
{
    const std::string text = R"({"counters":{"faults":4294967295,"starts":3},"timers":{)"
                             R"("boot":{"elapsed":5000000,"lastStarted":1700000000000000,"running":false},)"
                             R"("work":{"elapsed":7000000,"lastStarted":1700000000000001,"running":true}},)"
                             R"("values":{"a":"1"}})";
    EXPECT_EQ(statusctl({"load", "-"}, text), success("5\n"));
    EXPECT_EQ(statusctl({"counter", "list"}), success("faults=4294967295\nstarts=3\n"));
    EXPECT_EQ(statusctl({"timer", "show", "boot", "--json"}),
              success("{\"elapsed\":5000000,\"lastStarted\":1700000000000000}\n"));
    const std::string timers = statusctl({"timer", "list", "--json"}).output;
    EXPECT_NE(timers.find("\"lastStarted\":1700000000000001,\"running\":true"), std::string::npos) << timers;
    EXPECT_GE(std::stoull(statusctl({"timer", "show", "work"}).output), 7000000U);
}

// Includes names that only hostile clients choose.
TEST_F(TransferTest, whatDumpHasWrittenOfAllComesBackAsItWas)
{
    statusctl({"set", "a=b \n", "1"});
    statusctl({"timer", "stop", "\"quoted\" \n"});
    statusctl({"counter", "add", "T\u00fcr\t"});
    const std::string dumped = statusctl({"dump", "--all", "--json"}).output;
    mBroker.stop();
    BrokerProcess other;
    EXPECT_EQ(statusctl({"load", "-"}, dumped), success("3\n"));
    EXPECT_EQ(statusctl({"dump", "--all", "--json"}).output, dumped);
}

TEST_F(TransferTest, loadLosesNoneOfManyCounters)
{
    std::string text;
    for (int number = 0; number < 1000; ++number)
        text += (number == 0 ? "\"" : ",\"") + std::string(200, 'c') + std::to_string(number) + "\":1";
    EXPECT_EQ(statusctl({"load", "-"}, "{\"values\":{},\"counters\":{" + text + "}}"), success("1000\n"));
    const std::string list = statusctl({"counter", "list"}).output;
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 1000);
}

TEST_F(TransferTest, aTimerOrCounterOfAnotherShapeIsRefusedAndPostsNothing)
{
    const auto load = [](const std::string& member) {
        return statusctl({"load", "-"}, R"({"values":{"a":"1"},)" + member + "}");
    };
    EXPECT_EQ(load(R"("counters":{"c":-1})"),
              failure(1, "statusctl: load: \"c\" is not the number of a counter"));
    EXPECT_EQ(load(R"("counters":[])"), failure(1, "statusctl: load: \"counters\" is not an object"));
    EXPECT_EQ(load(R"("timers":{"t":5})"), failure(1, "statusctl: load: \"t\" is not a timer"));
    EXPECT_EQ(load(R"("timers":{"t":{"elapsed":"5","lastStarted":0,"running":false}})"),
              failure(1, "statusctl: load: \"elapsed\" of a timer is not a number of microseconds"));
    EXPECT_EQ(load(R"("timers":{"t":{"elapsed":9007199254740992,"lastStarted":0,"running":false}})").code, 1);
    EXPECT_EQ(statusctl({"dump"}), success(""));
}

// ---- load --replace

TEST_F(TransferTest, replaceRemovesTheKeysThatTheFileLacks)
{
    statusctl({"set", "a", "old", "b", "2", "c", "3"});
    statusctl({"counter", "set", "starts", "3"});
    EXPECT_EQ(statusctl({"load", "--replace", "-"}, R"({"values":{"a":"1"}})"),
              success("1 loaded, 2 removed\n"));
    EXPECT_EQ(statusctl({"dump", "--all"}), success("a=1\ncounter starts=3\n"));
    EXPECT_EQ(statusctl({"load", "--replace", "--json", "-"}, R"({"values":{}})"),
              success("{\"loaded\":0,\"removed\":1}\n"));
}

TEST_F(TransferTest, replaceRemovesTimersAndCountersThatAFileWithSomeLacks)
{
    statusctl({"timer", "stop", "boot"});
    statusctl({"counter", "set", "starts", "3"});
    statusctl({"counter", "set", "faults", "1"});
    EXPECT_EQ(statusctl({"load", "--replace", "-"}, R"({"values":{},"counters":{"starts":4},"timers":{}})"),
              success("1 loaded, 2 removed\n"));
    EXPECT_EQ(statusctl({"dump", "--all"}), success("counter starts=4\n"));
}

TEST_F(TransferTest, aDryRunRemovesNothing)
{
    statusctl({"set", "b", "2"});
    EXPECT_EQ(statusctl({"load", "--replace", "--dry-run", "-"}, R"({"values":{"a":"1"}})"), success("1\n"));
    EXPECT_EQ(statusctl({"dump"}), success("b=2\n"));
}

TEST_F(TransferTest, whatThePolicyKeepsIsAFailureOfReplaceAndOfTimers)
{
    writeFile(mFolder / "policy", "[[rule]]\nuser = " + std::to_string(geteuid()) +
                                      "\ndeny = [\"forget\", \"timer\"]\nkeys = \"kept.*\"\n");
    mBroker.stop();
    BrokerProcess policed({"--policy", mFolder / "policy"});
    statusctl({"set", "kept.a", "1", "kept.b", "2", "c", "3"});
    EXPECT_EQ(statusctl({"load", "--replace", "-"}, R"({"values":{}})"),
              failure(1, "statusctl: load: not found, or denied by the policy: 2 names, for example "
                         "\"kept.a\""));
    EXPECT_EQ(statusctl({"dump"}), success("kept.a=1\nkept.b=2\n"));
    const std::string timer = R"({"elapsed":5,"lastStarted":0,"running":false})";
    EXPECT_EQ(
        statusctl({"load", "-"}, R"({"values":{},"timers":{"kept.t":)" + timer + R"(,"u":)" + timer + "}}"),
        failure(1, "statusctl: load: the broker refused 1 timer, for example \"kept.t\" (see its log)"));
    EXPECT_EQ(statusctl({"timer", "list"}), success("u=5\n"));
}

// ---- refusals

TEST_F(TransferTest, loadNamesWhatTheBrokerRefuses)
{
    mBroker.stop();
    BrokerProcess broker({"--max-keys=2", "--max-counters=1"});
    const std::string text = R"({"values":{"a":"1","b":"2","c":"3","d":"4"},"counters":{"p":1,"q":2}})";
    EXPECT_EQ(statusctl({"load", "-"}, text),
              failure(1, "statusctl: load: the broker refused 2 values, for example \"c\" (see its log); the "
                         "broker refused 1 counter, for example \"q\" (see its log)"));
    EXPECT_EQ(statusctl({"dump", "--all"}), success("a=1\nb=2\ncounter p=1\n"));
    const Outcome outcome = statusctl({"--json", "load", "-"}, text);
    EXPECT_NE(outcome.errors.find(R"("refused":["c","d"],"refusedCounters":["q"])"), std::string::npos)
        << outcome;
}

TEST_F(TransferTest, loadNamesWhatThePolicyDenies)
{
    writeFile(mFolder / "policy", "[[rule]]\nuser = " + std::to_string(geteuid()) +
                                      "\ndeny = [\"post\", \"counter\"]\nkeys = \"kept.*\"\n");
    mBroker.stop();
    BrokerProcess policed({"--policy", mFolder / "policy"});
    EXPECT_EQ(statusctl({"load", "-"}, R"({"values":{"kept.v":"1"},"counters":{"kept.c":1}})").code, 1);
    EXPECT_EQ(statusctl({"load", "-"}, R"({"values":{"v":"1"},"counters":{"c":1}})"), success("2\n"));
}

TEST_F(TransferTest, replaceRemovesNothingUnlessTheBrokerHasTakenAll)
{
    mBroker.stop();
    BrokerProcess broker({"--max-keys=3", "--max-counters=2"});
    statusctl({"set", "a", "1", "b", "2", "c", "3"});
    statusctl({"counter", "set", "p", "1"});
    EXPECT_EQ(statusctl({"load", "--replace", "-"}, R"({"values":{"x":"1"},"counters":{}})"),
              failure(1, "statusctl: load: the broker refused 1 value, for example \"x\" (see its log); "
                         "nothing was removed"));
    EXPECT_EQ(statusctl({"load", "--replace", "-"}, R"({"values":{},"counters":{"x":1,"y":2,"z":3}})").code,
              1);
    EXPECT_EQ(statusctl({"dump", "--all"}), success("a=1\nb=2\nc=3\ncounter p=1\ncounter x=1\n"));
}

// The transport cannot take a message of exactly 512 bytes. Other programs can create such a name.
TEST_F(TransferTest, aNameThatCannotBeSentDoesNotKeepTheOthersFromBeingLoaded)
{
    const std::string name(486, 'n');
    const std::string timer = R"({"elapsed":5,"lastStarted":0,"running":false})";
    const std::string text =
        R"({"values":{"a":"1"},"counters":{")" + name + R"(":1,"z":2},"timers":{"t":)" + timer + "}}";
    EXPECT_EQ(statusctl({"load", "-"}, text),
              failure(1, "statusctl: load: cannot send 1 counter, for example \"" + name +
                             "\" (the transport cannot take a message of exactly 512 bytes; make it a byte "
                             "longer or shorter)"));
    EXPECT_EQ(statusctl({"dump", "--all"}), success("a=1\ntimer t=5\ncounter z=2\n"));
}

// What is there already need not be sent.
TEST_F(TransferTest, aNameThatCannotBeSentIsNoFailureWhereItsValueIsThere)
{
    mBroker.stop();
    BrokerProcess broker({"--max-key-bytes=1000"});
    const std::string name(486, 'n');
    statusctl({"counter", "add", name});
    statusctl({"set", "b", "2"});
    EXPECT_EQ(statusctl({"load", "--replace", "-"}, R"({"values":{},"counters":{")" + name + R"(":1}})"),
              success("1 loaded, 1 removed\n"));
}

TEST_F(TransferTest, aValueThatCannotBeSentDoesNotKeepTheOthersFromBeingLoaded)
{
    const Outcome outcome =
        statusctl({"load", "-"}, R"({"values":{"a":"1","z":"3"},"base64":{"raw":"//4="}})");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(outcome.errors.find("cannot send 1 value, for example \"raw\" ("), std::string::npos)
        << outcome;
    EXPECT_EQ(statusctl({"dump"}), success("a=1\nz=3\n"));
}
