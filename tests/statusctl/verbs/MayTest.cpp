// may, with a real broker and with a scripted broker.

#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ScriptedBroker.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Wait.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

class MayTest : public testing::Test
{
protected:
    std::string policy() const
    {
        writeFile(folder / "p", "[[rule]]\nuser = 4000\ndeny = [\"post\", \"time\"]\nkeys = \"a\"\n");
        return folder / "p";
    }

    TemporaryFolder folder;
    BrokerProcess broker{{"--policy", policy()}};
};

} // namespace

TEST_F(MayTest, whatIsDeniedIsExplainedAndExitsWith1)
{
    const Outcome outcome = statusctl({"may", "4000", "post", "a"});
    EXPECT_EQ(outcome.code, 1) << outcome;
    EXPECT_EQ(outcome.output, "denied by " + (folder / "p") + ":1: user 4000: deny post, time of a\n");
}

TEST_F(MayTest, whatIsAllowedIsExplainedAndExitsWith0)
{
    const Outcome outcome = statusctl({"may", "4000", "post", "b"});
    EXPECT_EQ(outcome.code, 0) << outcome;
    EXPECT_EQ(outcome.output, "allowed by the default, as no rule matches\n");
    EXPECT_EQ(statusctl({"-j", "may", "4000", "post", "b"}).output,
              "{\"allowed\":true,\"reason\":\"allowed by the default, as no rule matches\"}\n");
}

TEST_F(MayTest, doctorNamesAClientThatWasDeniedSomethingAndTheCommandThatExplainsIt)
{
    const std::string user = std::to_string(geteuid());
    writeFile(folder / "p", "[[rule]]\nuser = " + user + "\ndeny = [\"post\"]\nkeys = \"a\"\n");
    broker.process().signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return statusctl({"may", user, "post", "a"}).code == 1; }));
    ZmtpPeer poster(ZmtpPeer::postPort);
    ASSERT_TRUE(poster.shakeHands());
    ASSERT_TRUE(poster.write(ZmtpPeer::message(R"({"postStatus":{"a":"1"}})")));
    Outcome outcome;
    ASSERT_TRUE(eventually(
        [&]
        {
            outcome = statusctl({"doctor"});
            return outcome.output.find("problem: clients that were refused something") != std::string::npos;
        }))
        << outcome;
    EXPECT_EQ(outcome.code, 1) << outcome;
    EXPECT_NE(outcome.output.find(", 1 time\n"), std::string::npos) << outcome;
    EXPECT_NE(outcome.output.find("statusctl may " + user), std::string::npos) << outcome;
}

TEST_F(MayTest, anActionWithoutANameTakesNone)
{
    EXPECT_EQ(statusctl({"may", "0", "time"}).code, 0);
}

TEST_F(MayTest, whatTheBrokerDoesNotKnowIsWrongUsage)
{
    const Outcome outcome = statusctl({"may", "no such user", "post", "a"});
    EXPECT_EQ(outcome.code, 2);
    EXPECT_NE(outcome.errors.find("\"no such user\" is not a user"), std::string::npos) << outcome;
}

TEST(MayReplyTest, aBrokerWithoutPoliciesIsTold)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(ScriptedBroker::Frames{"{}"});
    const Outcome outcome = statusctl({"may", "0", "post", "a"});
    EXPECT_EQ(outcome.code, 5);
    EXPECT_NE(outcome.errors.find("this broker has no policy"), std::string::npos) << outcome;
}
