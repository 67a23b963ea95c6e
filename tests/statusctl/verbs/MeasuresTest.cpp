// timer and counter, with a real broker.

#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"

namespace
{

class MeasuresTest : public testing::Test
{
protected:
    static uint64_t elapsed()
    {
        const Outcome outcome = statusctl({"timer", "show", "boot"});
        EXPECT_EQ(outcome.code, 0) << outcome;
        return std::strtoull(outcome.output.c_str(), nullptr, 10);
    }

    BrokerProcess mBroker;
};

} // namespace

TEST_F(MeasuresTest, aTimerRunsFromStartToStop)
{
    EXPECT_EQ(elapsed(), 0U);
    EXPECT_EQ(statusctl({"timer", "start", "boot"}), success(""));
    const uint64_t first = elapsed();
    EXPECT_GT(first, 0U);
    EXPECT_GT(elapsed(), first);
    EXPECT_EQ(statusctl({"timer", "stop", "boot"}), success(""));
    const uint64_t stopped = elapsed();
    EXPECT_EQ(elapsed(), stopped);
}

TEST_F(MeasuresTest, aTimerCanBeReset)
{
    statusctl({"timer", "start", "boot"});
    statusctl({"timer", "stop", "boot"});
    EXPECT_GT(elapsed(), 0U);
    EXPECT_EQ(statusctl({"timer", "reset", "boot"}), success(""));
    EXPECT_EQ(elapsed(), 0U);
}

TEST_F(MeasuresTest, aTimerCanBeRestarted)
{
    EXPECT_EQ(statusctl({"timer", "restart", "boot"}), success(""));
    EXPECT_GT(elapsed(), 0U);
}

TEST_F(MeasuresTest, aTimerIsShownInWholeSecondsOrAsJson)
{
    EXPECT_EQ(statusctl({"timer", "show", "boot", "--seconds"}), success("0\n"));
    EXPECT_EQ(statusctl({"timer", "show", "boot", "--json"}), success("{\"elapsed\":0,\"lastStarted\":0}\n"));
}

TEST_F(MeasuresTest, aCounterCounts)
{
    EXPECT_EQ(statusctl({"counter", "get", "starts"}), success("0\n"));
    EXPECT_EQ(statusctl({"counter", "add", "starts"}), success("1\n"));
    EXPECT_EQ(statusctl({"counter", "add", "starts", "3"}), success("4\n"));
    EXPECT_EQ(statusctl({"counter", "get", "starts", "-j"}), success("{\"value\":4}\n"));
}

TEST_F(MeasuresTest, aCounterCanBeSetToAnyOfItsValues)
{
    for (const char* value : {"7", "0", "2147483648", "4294967295"})
    {
        EXPECT_EQ(statusctl({"counter", "set", "starts", value}), success(""));
        EXPECT_EQ(statusctl({"counter", "get", "starts"}), success(std::string(value) + "\n"));
    }
}

TEST_F(MeasuresTest, whatIsNoCountIsWrongUsage)
{
    for (const char* value : {"-1", "4294967296", "x", "1.5", ""})
        EXPECT_EQ(statusctl({"counter", "set", "starts", value}).code, 2) << value;
    EXPECT_EQ(statusctl({"counter", "add", "starts", "0"}).code, 2);
    EXPECT_EQ(statusctl({"counter", "count", "starts"}).code, 2);
    EXPECT_EQ(statusctl({"timer", "show"}).code, 2);
}

TEST_F(MeasuresTest, countersAreListed)
{
    EXPECT_EQ(statusctl({"counter", "list"}), success(""));
    EXPECT_EQ(statusctl({"counter", "list", "--json"}), success("{\"counters\":{}}\n"));
    statusctl({"counter", "set", "starts", "4294967295"});
    statusctl({"counter", "add", "two words"});
    EXPECT_EQ(statusctl({"counter", "list"}), success("starts=4294967295\ntwo\\x20words=1\n"));
    EXPECT_EQ(statusctl({"counter", "list", "--json"}),
              success("{\"counters\":{\"starts\":4294967295,\"two words\":1}}\n"));
}

TEST_F(MeasuresTest, timersAreListed)
{
    EXPECT_EQ(statusctl({"timer", "list"}), success(""));
    statusctl({"timer", "stop", "boot"});
    statusctl({"timer", "start", "work"});
    const Outcome outcome = statusctl({"timer", "list"});
    EXPECT_EQ(outcome.output.find("boot=0\nwork="), 0U) << outcome;
    EXPECT_EQ(statusctl({"timer", "list", "--seconds"}), success("boot=0\nwork=0\n"));
    const std::string json = statusctl({"timer", "list", "--json"}).output;
    EXPECT_EQ(json.find("{\"timers\":{\"boot\":{\"elapsed\":0,\"lastStarted\":0,\"running\":false},"
                        "\"work\":{\"elapsed\":"),
              0U)
        << json;
    EXPECT_NE(json.find("\"running\":true}}}\n"), std::string::npos) << json;
}
