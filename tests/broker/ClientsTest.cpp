// The real broker lists its clients, and names them in its log.

#include <gtest/gtest.h>
#include <json/writer.h>
#include <memory>
#include <unistd.h>
#include <vector>

#include "statusctl/text/Json.h"
#include "tests/broker/Messages.h"
#include "tests/support/AsUser.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProgramName.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

class ClientsTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(asking.shakeHands()); }

    Json::Value ask()
    {
        const std::string answer = asking.ask(R"({"getBrokerClients":"null"})");
        EXPECT_NE(answer, "");
        return JsonText::readObject(answer).value_or(Json::Value(Json::objectValue));
    }

    // The clients of this user, once the broker knows their processes.
    Json::Value clients()
    {
        Json::Value answer;
        EXPECT_TRUE(eventually(
            [&]
            {
                answer = ask();
                return answer["complete"] == 1;
            }));
        return answer["clients"];
    }

    // The entry of this process.
    Json::Value client()
    {
        const Json::Value all = clients();
        EXPECT_EQ(all.size(), 1U) << all;
        return all[0U];
    }

    // Answers come in order, so everything sent before has been handled.
    void awaitRound() { EXPECT_EQ(asking.ask(R"({"getCounterValue":"c"})"), "0"); }

    bool isInLog(const std::string& text) { return broker.process().waitForError(text); }

    static std::string nameInLog()
    {
        return "process " + std::to_string(getpid()) + " (" + kernelNameOf("ClientsTest") + ")]";
    }

    BrokerProcess broker;
    ZmtpPeer asking{ZmtpPeer::requestPort};
};

} // namespace

TEST_F(ClientsTest, theConnectionsOfAProcessAreOneClient)
{
    ZmtpPeer posting(ZmtpPeer::postPort);
    ZmtpPeer listening(ZmtpPeer::notifyPort);
    ASSERT_TRUE(posting.shakeHands());
    ASSERT_TRUE(listening.shakeHands());
    const Json::Value found = client();
    EXPECT_EQ(found["connections"], 3);
    EXPECT_EQ(found["pid"].asInt(), getpid());
    EXPECT_EQ(found["program"], kernelNameOf("ClientsTest"));
    EXPECT_EQ(found["uid"].asUInt(), getuid());
}

// Otherwise the broker would look through all processes again and again while many silent clients are there.
TEST_F(ClientsTest, aSyncLooksForTheProcessesOfAllWhosePostsItMayWaitForInOnePass)
{
    std::vector<std::unique_ptr<ZmtpPeer>> silent;
    for (int number = 0; number < 100; ++number)
    {
        silent.push_back(std::make_unique<ZmtpPeer>(ZmtpPeer::postPort));
        ASSERT_TRUE(silent.back()->shakeHands());
        ASSERT_TRUE(silent.back()->write(ZmtpPeer::pong("subscribed")));
    }
    ASSERT_NE(asking.ask("Sync"), ""); // the first one waits until all are subscribed
    ASSERT_NE(asking.ask("Sync"), "");
    // A new poster's process is looked for in a later pass.
    ZmtpPeer later(ZmtpPeer::postPort);
    ASSERT_TRUE(later.shakeHands());
    ASSERT_TRUE(later.write(ZmtpPeer::message(postOf("k", "v"))));
    ASSERT_TRUE(eventually(
        [&]
        {
            const std::string details = asking.ask(R"({"getStatusDetails":["k"]})");
            return details.find("\"pid\":" + std::to_string(getpid())) != std::string::npos;
        }));
    const Json::Value answer = ask();
    EXPECT_EQ(answer["complete"], 1);
    EXPECT_EQ(answer["clients"][0U]["connections"], 102) << answer;
}

TEST_F(ClientsTest, anotherProcessIsAnotherClient)
{
    TestProcess other({TESTCLIENT, "watch", "k"}); // until its input ends
    EXPECT_TRUE(eventually([&] { return clients().size() == 2; }));
    const Json::Value all = clients();
    EXPECT_EQ(all[0U]["pid"].asInt(), getpid());
    EXPECT_EQ(all[1U]["pid"].asInt(), other.pid());
    EXPECT_EQ(all[1U]["program"], kernelNameOf("testclient"));
}

TEST_F(ClientsTest, aClientThatHasGoneIsNotThereAnyMore)
{
    auto other = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort);
    ASSERT_TRUE(other->shakeHands());
    EXPECT_EQ(client()["connections"], 2);
    other.reset();
    EXPECT_TRUE(eventually([&] { return client()["connections"] == 1; }));
}

// May be skipped: the kernel lets only root become another user. The build server tests as root, so it always
// runs there. Elsewhere SockDiagTest reads the numbers of other users.
TEST_F(ClientsTest, anotherUserIsAnotherClientAlsoWithinAProcess)
{
    constexpr uid_t user = 12345;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be another user";
    std::unique_ptr<ZmtpPeer> other;
    ASSERT_TRUE(asUser(user, [&] { other = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort); }));
    ASSERT_TRUE(other->shakeHands());
    const Json::Value all = clients();
    ASSERT_EQ(all.size(), 2U) << all;
    EXPECT_EQ(all[1U]["uid"].asUInt(), user);
    EXPECT_EQ(all[1U]["user"], std::to_string(user));
}

TEST_F(ClientsTest, postsAndRequestsAreCounted)
{
    ZmtpPeer posting(ZmtpPeer::postPort);
    ASSERT_TRUE(posting.shakeHands());
    const Json::Value before = client();
    posting.write(ZmtpPeer::message(postOf("a", "1")) + ZmtpPeer::message(postOf("a", "2")));
    EXPECT_TRUE(eventually([&] { return client()["posts"].asUInt() == before["posts"].asUInt() + 2; }));
    const unsigned requests = ask()["clients"][0U]["requests"].asUInt();
    awaitRound();
    EXPECT_TRUE(eventually([&] { return ask()["clients"][0U]["requests"].asUInt() > requests + 1; }));
}

TEST_F(ClientsTest, bytesAreCountedInBothDirections)
{
    ZmtpPeer posting(ZmtpPeer::postPort);
    ASSERT_TRUE(posting.shakeHands());
    const Json::Value before = client();
    const std::string post = ZmtpPeer::message(postOf("a", std::string(50000, 'x')));
    ASSERT_TRUE(posting.write(post));
    EXPECT_TRUE(eventually(
        [&] { return client()["received"].asUInt() >= before["received"].asUInt() + post.size(); }));
    asking.ask(R"({"getClientInfoValue":"a"})");
    EXPECT_TRUE(
        eventually([&] { return client()["sent"].asUInt() >= before["sent"].asUInt() + post.size(); }));
}

TEST_F(ClientsTest, notificationsThatItDoesNotTakeAreToldAsQueued)
{
    constexpr int posts = 300;
    constexpr std::size_t valueBytes = 10000;
    ZmtpPeer listening(ZmtpPeer::notifyPort, 4096);
    ZmtpPeer posting(ZmtpPeer::postPort);
    ASSERT_TRUE(listening.shakeHands());
    ASSERT_TRUE(listening.write(ZmtpPeer::subscribe("")));
    ASSERT_TRUE(posting.shakeHands());
    EXPECT_EQ(client()["queued"], 0);
    for (int post = 0; post < posts; ++post)
        ASSERT_TRUE(posting.write(
            ZmtpPeer::message(postOf("k", std::string(valueBytes, post % 2 == 0 ? 'a' : 'b')))));
    EXPECT_TRUE(eventually([&] { return client()["queued"].asUInt() > valueBytes; }));
}

TEST_F(ClientsTest, theTimeOfItsFirstConnectionIsTold)
{
    const auto now = []
    {
        timespec time{};
        clock_gettime(CLOCK_REALTIME, &time);
        return static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_nsec / 1000);
    };
    const uint64_t before = now();
    auto first = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort);
    ASSERT_TRUE(first->shakeHands());
    const uint64_t since = client()["since"].asUInt64();
    EXPECT_LT(since, before); // the start of the connection that asks
    EXPECT_GT(since + 60000000, before);
}

TEST_F(ClientsTest, aMalformedPostIsLoggedWithItsClientAndCountedThere)
{
    ZmtpPeer posting(ZmtpPeer::postPort);
    ASSERT_TRUE(posting.shakeHands());
    posting.write(ZmtpPeer::message("nonsense"));
    EXPECT_TRUE(isInLog("Malformed post [nonsense] refused [user ")) << broker.process().errors();
    EXPECT_TRUE(isInLog(nameInLog())) << broker.process().errors();
    EXPECT_EQ(client()["refusals"], 1);
}

// The library sends such posts, with an empty last frame.
TEST_F(ClientsTest, aPostThatLostItsLast512BytesSaysSoWithWhatIsLeft)
{
    constexpr std::size_t frameBytes = 512;
    ZmtpPeer posting(ZmtpPeer::postPort);
    ASSERT_TRUE(posting.shakeHands());
    const std::string text = postOf("k", std::string(2 * frameBytes, 'x'));
    posting.write(WireFrames::message({text.substr(0, frameBytes), ""}));
    EXPECT_TRUE(isInLog("which seems to lack its last 512 bytes: its length is a multiple of that [user "));
    EXPECT_TRUE(isInLog(R"(Malformed post [{"postStatus":{"k":"xxxx)")) << broker.process().errors();
    posting.write(WireFrames::message({"x"}));
    EXPECT_TRUE(isInLog("Malformed post [x] refused [user "));
}

TEST_F(ClientsTest, aMalformedRequestIsLoggedWithItsClientAndCountedThere)
{
    EXPECT_EQ(asking.ask("nonsense"), "{}");
    EXPECT_TRUE(isInLog("Malformed request [nonsense] refused [user ")) << broker.process().errors();
    EXPECT_TRUE(isInLog(nameInLog())) << broker.process().errors();
    EXPECT_EQ(client()["refusals"], 1);
}

TEST_F(ClientsTest, aSubscriptionThatIsRefusedIsLoggedWithItsClient)
{
    ZmtpPeer listening(ZmtpPeer::notifyPort);
    ASSERT_TRUE(listening.shakeHands());
    ASSERT_TRUE(listening.write(ZmtpPeer::subscribe(std::string(256, 'x'))));
    EXPECT_TRUE(isInLog(nameInLog())) << broker.process().errors();
    EXPECT_EQ(client()["refusals"], 1);
}

TEST_F(ClientsTest, refusalsOfOthersDoNotCountForIt)
{
    ZmtpPeer other(ZmtpPeer::requestPort);
    ASSERT_TRUE(other.shakeHands());
    EXPECT_EQ(other.ask("nonsense"), "{}");
    other.reset();
    EXPECT_TRUE(eventually([&] { return client()["connections"] == 1; }));
    EXPECT_EQ(client()["refusals"], 0);
}
