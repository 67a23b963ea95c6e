// dump and load, against a real broker.

#include <gtest/gtest.h>

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

// Far more than the transport takes unconfirmed.
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
              failure(1, "statusctl: load: the value of \"b\" is no text"));
    EXPECT_EQ(statusctl({"load", mFolder / "none"}),
              failure(1, "statusctl: load: cannot read " + mFolder / "none" + ": No such file or directory"));
    EXPECT_EQ(statusctl({"dump"}), success(""));
}

TEST_F(TransferTest, quietLeavesTheCountOut)
{
    EXPECT_EQ(statusctl({"-q", "load", "-"}, R"({"values":{"a":"1"}})"), success(""));
}
