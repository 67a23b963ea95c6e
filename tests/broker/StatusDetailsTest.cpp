// The real broker reports who posted a value, when, and how often.

#include <gtest/gtest.h>
#include <json/writer.h>
#include <memory>

#include "statusctl/text/Json.h"
#include "tests/broker/PolicedBroker.h"
#include "tests/support/AsUser.h"
#include "tests/support/ProgramName.h"

namespace
{

class StatusDetails : public PolicedBroker
{
protected:
    Json::Value detailsOf(const std::string& keys)
    {
        const std::string answer = ask(R"({"getStatusDetails":[)" + keys + "]}");
        return JsonText::readObject(answer).value_or(Json::Value())["statusDetails"];
    }

    void startWithFile() { start(allOk, {"--state", folder / "state"}); }

    // The broker may still be looking for the process.
    bool isPostedByUs()
    {
        return eventually([&] { return detailsOf(R"("door")")["door"]["poster"]["pid"] == getpid(); });
    }
};

} // namespace

TEST_F(StatusDetails, nameTheClientThatPosted)
{
    start(allOk);
    post(postOf("door", "open"));
    EXPECT_TRUE(isPostedByUs());
    const Json::Value door = detailsOf(R"("door")")["door"];
    EXPECT_EQ(door["value"], "open");
    EXPECT_EQ(door["poster"]["uid"].asUInt(), geteuid());
    EXPECT_EQ(door["poster"]["program"], kernelNameOf("StatusDetailsTe")); // the kernel keeps only this much
    EXPECT_FALSE(door.isMember("changer")) << door;
    EXPECT_EQ(door["posts"], 1);
    EXPECT_EQ(door["changes"], 1);
    EXPECT_EQ(door["posted"], door["changed"]);
}

TEST_F(StatusDetails, nameTheClientAlsoWhenItHasGone)
{
    start(allOk);
    post(postOf("door", "open"));
    EXPECT_TRUE(isPostedByUs());
    posting.reset();
    EXPECT_TRUE(eventually([&] { return statistic("clients.posts") == 0; }));
    EXPECT_TRUE(isPostedByUs());
}

TEST_F(StatusDetails, leaveOutKeysThatAreNotThere)
{
    start(allOk);
    post(postOf("door", "open"));
    EXPECT_EQ(detailsOf(R"("window","door","door")").getMemberNames(), Json::Value::Members{"door"});
    EXPECT_EQ(ask(R"({"getStatusDetails":["window"]})"), R"({"statusDetails":{}})");
    EXPECT_EQ(ask(R"({"getStatusDetails":[]})"), R"({"statusDetails":{}})");
}

TEST_F(StatusDetails, leaveOutKeysThatThePolicyHides)
{
    start(rule("deny = \"see\"\nkeys = \"secret\"") + rule("deny = \"query\"\nkeys = \"mute\""));
    post(R"({"postStatus":{"door":"open","mute":"1","secret":"1"}})");
    EXPECT_EQ(detailsOf(R"("door","mute","secret")").getMemberNames(), Json::Value::Members{"door"});
}

// May be skipped: the kernel lets only root become another user. The build server tests as root, so it always
// runs there. Elsewhere ValueHistory distinguishes clients of the same user.
TEST_F(StatusDetails, tellTheClientThatChangedItFromTheOneThatPostedItAgain)
{
    constexpr uid_t user = 12345;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be another user";
    start(allOk);
    std::unique_ptr<ZmtpPeer> other;
    ASSERT_TRUE(asUser(user, [&] { other = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort); }));
    ASSERT_TRUE(other->shakeHands());
    post(postOf("door", "open"));
    ASSERT_TRUE(other->write(ZmtpPeer::message(postOf("door", "open"))));
    EXPECT_TRUE(eventually([&] { return detailsOf(R"("door")")["door"]["posts"] == 2; }));
    const Json::Value door = detailsOf(R"("door")")["door"];
    EXPECT_EQ(door["poster"]["uid"].asUInt(), user) << door;
    EXPECT_EQ(door["changer"]["uid"].asUInt(), 0U) << door;
}

TEST_F(StatusDetails, areThereAfterAKill)
{
    startWithFile();
    post(postOf("door", "open"));
    post(postOf("door", "shut"));
    const Json::Value before = detailsOf(R"("door")")["door"];
    broker->kill();
    startWithFile();
    const Json::Value after = detailsOf(R"("door")")["door"];
    EXPECT_EQ(after["value"], "shut");
    EXPECT_EQ(after["posts"], 2);
    EXPECT_EQ(after["changes"], 2);
    EXPECT_EQ(after["poster"]["uid"], before["poster"]["uid"]);
    EXPECT_NEAR(after["changed"].asDouble(), before["changed"].asDouble(), 1e6);
}

TEST_F(StatusDetails, ofPostsThatChangedNothingAreThereAfterACleanEnd)
{
    startWithFile();
    post(postOf("door", "open"));
    post(postOf("door", "open"));
    EXPECT_TRUE(isPostedByUs());
    const Json::Value before = detailsOf(R"("door")")["door"];
    EXPECT_EQ(broker->stop(), 0);
    startWithFile();
    const Json::Value after = detailsOf(R"("door")")["door"];
    EXPECT_EQ(after["posts"], 2);
    EXPECT_EQ(after["changes"], 1);
    EXPECT_EQ(after["poster"], before["poster"]);
    EXPECT_NEAR(after["posted"].asDouble(), before["posted"].asDouble(), 1e6);
    EXPECT_GT(after["posted"].asUInt64(), after["changed"].asUInt64());
}

// Writing would wear out the flash.
TEST_F(StatusDetails, ofPostsThatChangeNothingAreNotWritten)
{
    startWithFile();
    post(postOf("door", "open"));
    ASSERT_TRUE(isPostedByUs()); // this is written, too
    const uint64_t commits = statistic("state.commits");
    EXPECT_GT(commits, 0U);
    for (int number = 0; number < 10; ++number)
        post(postOf("door", "open"));
    EXPECT_EQ(detailsOf(R"("door")")["door"]["posts"], 11);
    EXPECT_EQ(statistic("state.commits"), commits);
    post(postOf("door", "shut"));
    EXPECT_EQ(statistic("state.commits"), commits + 1);
}

// May be skipped, as above. Elsewhere ValueHistory tests that such a post is to be kept.
TEST_F(StatusDetails, ofAPostOfAnotherUserAreWritten)
{
    constexpr uid_t user = 12345;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be another user";
    startWithFile();
    post(postOf("door", "open"));
    std::unique_ptr<ZmtpPeer> other;
    ASSERT_TRUE(asUser(user, [&] { other = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort); }));
    ASSERT_TRUE(other->shakeHands());
    ASSERT_TRUE(other->write(ZmtpPeer::message(postOf("door", "open"))));
    EXPECT_TRUE(eventually([&] { return detailsOf(R"("door")")["door"]["posts"] == 2; }));
    broker->kill();
    startWithFile();
    const Json::Value door = detailsOf(R"("door")")["door"];
    EXPECT_EQ(door["poster"]["uid"].asUInt(), user) << door;
    EXPECT_EQ(door["changer"]["uid"].asUInt(), 0U) << door;
}

// Many times larger than what a connection may hold.
TEST_F(StatusDetails, ofAllKeysComeInOneAnswer)
{
    constexpr int keys = 10000;
    start(allOk);
    std::string values;
    std::string names;
    for (int key = 0; key < keys; ++key)
    {
        values += (key == 0 ? "\"k" : ",\"k") + std::to_string(key) + R"(":"1")";
        names += (key == 0 ? "\"k" : ",\"k") + std::to_string(key) + '"';
    }
    post(R"({"postStatus":{)" + values + "}}");
    EXPECT_EQ(detailsOf(names).size(), static_cast<Json::ArrayIndex>(keys));
}
