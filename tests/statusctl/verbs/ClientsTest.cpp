// clients, with a real broker and with a scripted broker.

#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

#include "statusctl/text/Json.h"
#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProgramName.h"
#include "tests/support/ScriptedBroker.h"
#include "tests/support/Wait.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

// The tool waits for the broker's search for processes, but not long: a busy machine may need another call.
Outcome clientsWithProcesses(const Words& words)
{
    Outcome outcome;
    eventually(
        [&]
        {
            outcome = statusctl(words);
            return outcome.output.find(kernelNameOf("ToolTest")) != std::string::npos &&
                   outcome.output.find(kernelNameOf("statusctl")) != std::string::npos;
        });
    return outcome;
}

} // namespace

TEST(ClientsTest, theClientsOfTheBrokerArePrintedAsATable)
{
    BrokerProcess broker;
    ZmtpPeer peer(ZmtpPeer::postPort);
    ASSERT_TRUE(peer.shakeHands());
    const Outcome outcome = clientsWithProcesses({"clients"});
    EXPECT_EQ(outcome.code, 0) << outcome;
    std::istringstream lines(outcome.output);
    std::string titles;
    std::string first;
    std::string second;
    std::getline(lines, titles);
    std::getline(lines, first);
    std::getline(lines, second);
    EXPECT_EQ(titles.substr(0, 16), "SERVICE  PROGRAM") << outcome;
    EXPECT_NE(first.find(' ' + kernelNameOf("ToolTest") + ' '), std::string::npos) << outcome;
    EXPECT_NE(first.find(' ' + std::to_string(getpid()) + ' '), std::string::npos) << outcome;
    EXPECT_NE(second.find(' ' + kernelNameOf("statusctl") + ' '), std::string::npos) << outcome;
}

TEST(ClientsTest, asJsonTheyAreObjectsInAList)
{
    BrokerProcess broker;
    ZmtpPeer peer(ZmtpPeer::postPort);
    ASSERT_TRUE(peer.shakeHands());
    const Outcome outcome = clientsWithProcesses({"-j", "clients"});
    const Json::Value answer = JsonText::readObject(outcome.output).value_or(Json::Value());
    ASSERT_EQ(answer["clients"].size(), 2U) << outcome;
    const Json::Value client = answer["clients"][0U];
    EXPECT_EQ(client["pid"].asInt(), getpid());
    EXPECT_EQ(client["uid"].asUInt(), getuid());
    EXPECT_EQ(client["program"], kernelNameOf("ToolTest"));
    EXPECT_EQ(client["connections"], 1);
    EXPECT_EQ(client["since"].asString().size(), std::string("2026-11-21T07:12:01.123456Z").size())
        << outcome;
}

TEST(ClientsTest, whatTheBrokerDoesNotKnowIsLeftOut)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(ScriptedBroker::Frames{R"({"clients":[{"since":0,"connections":2}],"complete":1})"});
    const std::string table =
        "SERVICE  PROGRAM  USER  PID  CONNS  POSTS  REQUESTS  REFUSED  QUEUED  IN  OUT  SINCE\n"
        "-        -        -       -      2      0         0        0       0   0    0  ";
    EXPECT_EQ(statusctl({"clients"}).output.substr(0, table.size()), table); // the local time follows
    EXPECT_EQ(
        statusctl({"-j", "clients"}).output,
        R"({"clients":[{"connections":2,"posts":0,"queued":0,"received":0,"refusals":0,"requests":0,"sent":0,)"
        R"("since":"1970-01-01T00:00:00.000000Z"}]})"
        "\n");
}

TEST(ClientsTest, namesAreEscaped)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(ScriptedBroker::Frames{R"({"clients":[{"program":"a\u001b[31m\nb"}],"complete":1})"});
    EXPECT_NE(statusctl({"clients"}).output.find("a\\x1b[31m\\nb"), std::string::npos);
}

TEST(ClientsTest, whileTheBrokerLooksForProcessesItIsAskedAgain)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    int asked = 0;
    broker.answerWith(
        [&](const std::string&) -> std::optional<ScriptedBroker::Frames>
        {
            ++asked;
            return ScriptedBroker::Frames{asked < 3 ? R"({"clients":[],"complete":0})"
                                                    : R"({"clients":[{"pid":7}],"complete":1})"};
        });
    const Outcome outcome = statusctl({"-j", "clients"});
    EXPECT_NE(outcome.output.find("\"pid\":7"), std::string::npos) << outcome;
}

TEST(ClientsTest, aBrokerThatNeverFindsThemIsNotWaitedFor)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(ScriptedBroker::Frames{R"({"clients":[{"connections":1}],"complete":0})"});
    EXPECT_EQ(statusctl({"clients"}).code, 0);
}

TEST(ClientsTest, aBrokerThatDoesNotTellIsExitCode5)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    EXPECT_EQ(statusctl({"clients"}),
              failure(5, "statusctl: clients: this broker does not list its clients"));
}

TEST(ClientsTest, aBadReplyIsExitCode5)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    for (const char* reply : {"nonsense", R"({"clients":[5],"complete":1})"})
    {
        broker.answerWith(ScriptedBroker::Frames{reply});
        EXPECT_EQ(statusctl({"clients"}),
                  failure(5, std::string("statusctl: clients: bad reply from the broker: ") + reply));
    }
}
