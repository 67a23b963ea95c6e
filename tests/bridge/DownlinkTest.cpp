#include "bridge/Downlink.h"

#include <gtest/gtest.h>

namespace
{

class DownlinkTest : public testing::Test
{
protected:
    DownlinkTest()
    {
        options.desiredKeys.emplace_back("set.*");
        options.commands.emplace_back("do.*");
    }

    void want(const std::string& key, int version, const std::string& value)
    {
        down.take(topics,
                  {"fleet/truck/desired/" + Topics::encode(key),
                   "{\"version\":" + std::to_string(version) + ",\"value\":\"" + value + "\"}",
                   true,
                   {}},
                  now);
    }

    void command(const std::string& topic, const std::string& value, uint32_t expiry = 10)
    {
        down.take(topics, {"fleet/truck/cmd/" + topic, value, false, expiry}, now);
    }

    BridgeOptions options;
    Topics topics{"fleet", "truck"};
    BridgeFile file{""};
    Downlink down{options, file};
    TimePoint now = TimePoint() + std::chrono::hours(1);
};

TEST_F(DownlinkTest, onlyTheHighestVersionOfAKeyIsPosted)
{
    want("set.a", 1, "x");
    want("set.a", 3, "z");
    want("set.a", 2, "y");
    EXPECT_EQ(down.nextBatch(now).values, (Downlink::Values{{"set.a", "z"}}));
}

TEST_F(DownlinkTest, aNameIsDecoded)
{
    want("set.a/b", 1, "x");
    EXPECT_EQ(down.nextBatch(now).values, (Downlink::Values{{"set.a/b", "x"}}));
}

TEST_F(DownlinkTest, aNameThatIsNotEncodedAsOursIsIgnored)
{
    for (const char* level : {"set.%41", "set.%2f", "set.%", "set.%2", "set.%zz"})
        down.take(topics,
                  {std::string("fleet/truck/desired/") + level, R"({"version":1,"value":"x"})", true, {}},
                  now);
    EXPECT_TRUE(down.nextBatch(now).isEmpty());
    EXPECT_FALSE(down.hasAnswer());
}

TEST_F(DownlinkTest, keysBeyondTheLimitAreRefused)
{
    for (int i = 0; i < 1100; ++i)
        want("set." + std::to_string(i), 1, "x");
    EXPECT_LE(down.nextBatch(now).values.size(), 1001U);
    EXPECT_TRUE(down.hasAnswer());
}

TEST_F(DownlinkTest, aRefusedVersionIsTriedAgain)
{
    want("set.a", 1, "x");
    down.nextBatch(now);
    down.posted(topics, {{"set.a", "other"}});
    EXPECT_EQ(down.nextAnswer()->payload, R"({"version":1,"error":"the broker has another value"})");
    want("set.a", 1, "x");
    EXPECT_FALSE(down.nextBatch(now).isEmpty());
}

TEST_F(DownlinkTest, anEmptyValueIsAppliedIfTheKeyDoesNotExist)
{
    want("set.a", 1, "");
    down.nextBatch(now);
    down.posted(topics, {});
    EXPECT_EQ(down.nextAnswer()->payload, R"({"version":1,"value":""})");
}

TEST_F(DownlinkTest, aCommandThatHasExpiredIsNotPosted)
{
    command("do.a/1", "x", 10);
    command("do.b/2", "y", 11);
    now += std::chrono::seconds(10);
    const Downlink::Batch batch = down.nextBatch(now);
    ASSERT_EQ(batch.events.size(), 1U);
    EXPECT_EQ(batch.events.front().first, "do.b");
    EXPECT_EQ(down.refused(), 1U);
}

TEST_F(DownlinkTest, tooManyCommandsAreRefused)
{
    for (int i = 0; i < 150; ++i)
        command("do.a/" + std::to_string(i), "x");
    EXPECT_EQ(down.nextBatch(now).events.size(), 100U);
    EXPECT_EQ(down.refused(), 50U);
}

TEST_F(DownlinkTest, otherTopicsAreIgnored)
{
    for (const char* topic : {"rebirth", "do.a/1/result", "do.a"})
        command(topic, "x");
    EXPECT_TRUE(down.nextBatch(now).isEmpty());
    EXPECT_FALSE(down.hasAnswer());
}

} // namespace
