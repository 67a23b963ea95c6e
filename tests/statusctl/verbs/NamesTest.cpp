// Empty names, and globs in place of names, with a real broker.

#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"

namespace
{

class NamesTest : public testing::Test
{
protected:
    NamesTest() { statusctl({"set", "net.rx", "1", "net.tx", "2", "disk", "3"}); }

    static std::string keys() { return statusctl({"-j", "dump", "--keys"}).output; }

    BrokerProcess mBroker;
};

const std::string sameKeys = "[\"disk\",\"net.rx\",\"net.tx\"]\n";

// With a timeout, because some commands would wait for ever.
Outcome briefly(const Words& words)
{
    Words command{"-t", "5"};
    command.insert(command.end(), words.begin(), words.end());
    return statusctl(command);
}

Outcome emptyRefused(const Words& words)
{
    return failure(2, "statusctl: " + words[0] + ": a name must not be empty");
}

Outcome globRefused(const Words& words)
{
    return failure(
        2, "statusctl: " + words[0] +
               ": \"net.*\" is a glob, which this command does not expand; use --literal if it is a name");
}

} // namespace

TEST_F(NamesTest, anEmptyNameIsRefusedEverywhere)
{
    const std::vector<Words> commands{{"get", ""},
                                      {"get", "--long", "disk", ""},
                                      {"get", "--literal", ""},
                                      {"set", "", "1"},
                                      {"set", "disk", "4", "", "1"},
                                      {"reset", ""},
                                      {"reset", "disk", ""},
                                      {"forget", ""},
                                      {"forget", "--timer", ""},
                                      {"dump", ""},
                                      {"show", ""},
                                      {"watch", ""},
                                      {"watch", "--event", ""},
                                      {"record", "/dev/null", ""},
                                      {"event", ""},
                                      {"event", "--wait", ""},
                                      {"timer", "start", ""},
                                      {"timer", "show", ""},
                                      {"counter", "get", ""},
                                      {"counter", "set", "", "1"},
                                      {"may", "root", "post", ""},
                                      {"top", ""}};
    for (const Words& words : commands)
        EXPECT_EQ(briefly(words), emptyRefused(words)) << words[1];
    EXPECT_EQ(keys(), sameKeys);
    EXPECT_EQ(statusctl({"get", "disk"}), success("3\n"));
}

TEST_F(NamesTest, aGlobIsRefusedWhereNamesAreNotExpanded)
{
    const std::vector<Words> commands{{"set", "net.*", "1"},
                                      {"set", "disk", "4", "net.*", "1"},
                                      {"set", "net.*", "1", "--while", "--", "true"},
                                      {"wait", "net.*"},
                                      {"wait", "net.*=1"},
                                      {"event", "net.*"},
                                      {"event", "--wait", "net.*"},
                                      {"timer", "start", "net.*"},
                                      {"timer", "show", "net.*"},
                                      {"counter", "add", "net.*"},
                                      {"counter", "set", "net.*", "1"},
                                      {"forget", "--counter", "net.*"},
                                      {"may", "root", "post", "net.*"}};
    for (const Words& words : commands)
        EXPECT_EQ(briefly(words), globRefused(words)) << words[1];
    EXPECT_EQ(keys(), sameKeys);
    EXPECT_EQ(statusctl({"get", "disk"}), success("3\n"));
}

TEST_F(NamesTest, literallyAGlobIsAName)
{
    EXPECT_EQ(statusctl({"set", "--literal", "net.*", "4"}), success(""));
    EXPECT_EQ(statusctl({"get", "--literal", "net.*"}), success("4\n"));
    EXPECT_EQ(statusctl({"wait", "--literal", "net.*=4"}), success("4\n"));
    EXPECT_EQ(statusctl({"reset", "--literal", "net.*"}), success(""));
    EXPECT_EQ(statusctl({"get", "net.rx", "net.tx"}), success("net.rx=1\nnet.tx=2\n"));
    EXPECT_EQ(statusctl({"event", "--literal", "a?"}), success(""));
    EXPECT_EQ(statusctl({"timer", "start", "--literal", "a?"}), success(""));
    EXPECT_EQ(statusctl({"counter", "add", "a?", "--literal"}), success("1\n"));
    EXPECT_EQ(statusctl({"may", "--literal", "root", "post", "net.*"}).code, 0);
}

TEST_F(NamesTest, anEmptyNameThatIsThereCanBeForgotten)
{
    EXPECT_EQ(statusctl({"load", "-"}, R"({"values":{"":"x"}})"), success("1\n"));
    EXPECT_NE(keys(), sameKeys);
    EXPECT_EQ(statusctl({"forget", "--literal", ""}), success(""));
    EXPECT_EQ(keys(), sameKeys);
}

TEST_F(NamesTest, getExpandsGlobs)
{
    EXPECT_EQ(statusctl({"get", "net.*"}), success("net.rx=1\nnet.tx=2\n"));
    EXPECT_EQ(statusctl({"get", "net.t?"}), success("net.tx=2\n"))
        << "a glob prints names even if only one key matches";
    EXPECT_EQ(statusctl({"get", "net.tx", "net.*", "disk"}), success("net.tx=2\nnet.rx=1\ndisk=3\n"));
    EXPECT_EQ(statusctl({"-j", "get", "net.*"}), success(R"({"values":{"net.rx":"1","net.tx":"2"}})"
                                                         "\n"));
    const Outcome table = statusctl({"get", "--long", "net.*"});
    EXPECT_NE(table.output.find("\nnet.tx  2 "), std::string::npos) << table;
}

TEST_F(NamesTest, aGlobWithoutAnyKeyIsExitCode3)
{
    EXPECT_EQ(statusctl({"get", "x*", "disk"}), failure(3, "statusctl: get: no value for \"x*\""));
    EXPECT_EQ(statusctl({"get", "x*", "--default", "d"}).code, 3);
    EXPECT_EQ(statusctl({"get", "x*", "--long"}).code, 3);
    EXPECT_EQ(statusctl({"reset", "disk", "x*"}), failure(3, "statusctl: reset: no key matches \"x*\""));
    EXPECT_EQ(statusctl({"get", "disk"}), success("3\n")) << "nothing was reset";
}

TEST_F(NamesTest, resetExpandsGlobs)
{
    EXPECT_EQ(statusctl({"reset", "net.*"}), success(""));
    EXPECT_EQ(statusctl({"dump"}), success("disk=3\nnet.rx=\nnet.tx=\n"));
}
