#include <gtest/gtest.h>
#include <map>

#include "bridge/NameRules.h"
#include "mqttlink/ServerName.h"
#include "mqttlink/Topics.h"

TEST(TopicsTest, aKeyIsOneLevelBelowTheDevice)
{
    const Topics topics("fleet/berlin", "truck7");
    EXPECT_EQ(topics.status("door"), "fleet/berlin/truck7/status/door");
    EXPECT_EQ(topics.event("bell"), "fleet/berlin/truck7/event/bell");
    EXPECT_EQ(topics.online(), "fleet/berlin/truck7/online");
}

TEST(TopicsTest, lettersWithAMeaningInTopicsAreEncoded)
{
    EXPECT_EQ(Topics::encode("a/b+c#d%e"), "a%2Fb%2Bc%23d%25e");
    EXPECT_EQ(Topics::encode(std::string("a\0b", 3)), "a%00b");
    EXPECT_EQ(Topics::encode("$a$b"), "%24a$b");
    EXPECT_EQ(Topics::encode("tab\tand del\x7f"), "tab%09and del%7F");
}

TEST(TopicsTest, lettersBeyondAsciiStayUnlessTopicsMayNotHaveThem)
{
    EXPECT_EQ(Topics::encode("t\xc3\xbcr"), "t\xc3\xbcr");
    EXPECT_EQ(Topics::encode("c1\xc2\x85"), "c1%C2%85");
    EXPECT_EQ(Topics::encode("no letter \xff"), "no letter %FF");
}

TEST(TopicsTest, theDeviceIsEncodedToo)
{
    EXPECT_EQ(Topics("fleet", "a/b").online(), "fleet/a%2Fb/online");
}

TEST(TopicsTest, aPrefixIsATopicWithoutSlashesAtItsEnds)
{
    EXPECT_EQ(Topics::errorInPrefix("fleet/berlin"), "");
    for (const char* wrong : {"", "/fleet", "fleet/", "$SYS", "fleet/+", "#", "a\tb"})
        EXPECT_NE(Topics::errorInPrefix(wrong), "") << wrong;
}

TEST(ServerNameTest, aPlainNameIsItself)
{
    EXPECT_EQ(ServerName::errorIn("mqtt.example.org"), "");
    EXPECT_EQ(ServerName::pick("mqtt.example.org", "truck7"), "mqtt.example.org");
}

TEST(ServerNameTest, aDeviceAlwaysPicksTheSameServerOfARow)
{
    // Devices in the field rely on the number.
    EXPECT_EQ(ServerName::pick("mqtt{0..127}.example.org", "truck7"),
              ServerName::pick("mqtt{0..127}.example.org", "truck7"));
    EXPECT_EQ(ServerName::pick("mqtt{5..5}.example.org", "truck7"), "mqtt5.example.org");
}

TEST(ServerNameTest, devicesSpreadOverTheServersOfARow)
{
    std::map<std::string, int> counts;
    for (int device = 0; device < 4000; ++device)
        ++counts[ServerName::pick("m{1..4}", "device" + std::to_string(device))];
    ASSERT_EQ(counts.size(), 4U);
    for (const auto& [server, count] : counts)
        EXPECT_NEAR(count, 1000, 150) << server;
    EXPECT_EQ(counts.count("m1") + counts.count("m4"), 2U);
}

TEST(ServerNameTest, aMalformedRowIsRefused)
{
    for (const char* wrong :
         {"", "m{", "m}", "m{1}", "m{2..1}", "m{a..b}", "m{0..9999999}", "m{0..1}{0..1}", "a b"})
        EXPECT_NE(ServerName::errorIn(wrong), "") << wrong;
}

TEST(NameRulesTest, withoutIncludeGlobsEverythingIsAllowedThatIsNotExcluded)
{
    NameRules rules;
    EXPECT_TRUE(rules.allows("door"));
    rules.exclude.emplace_back("secret.*");
    EXPECT_TRUE(rules.allows("door"));
    EXPECT_FALSE(rules.allows("secret.key"));
}

TEST(NameRulesTest, excludeWinsOverInclude)
{
    NameRules rules;
    rules.include.emplace_back("net.*");
    rules.exclude.emplace_back("*.raw");
    EXPECT_TRUE(rules.allows("net.up"));
    EXPECT_FALSE(rules.allows("door"));
    EXPECT_FALSE(rules.allows("net.raw"));
}

TEST(NameRulesTest, theFirstIntervalThatMatchesCounts)
{
    using std::chrono::seconds;
    const std::vector<IntervalRule> rules{{Glob("sensor.slow"), seconds(60)},
                                          {Glob("sensor.*"), seconds(10)}};
    EXPECT_EQ(intervalOf(rules, "sensor.slow"), seconds(60));
    EXPECT_EQ(intervalOf(rules, "sensor.fast"), seconds(10));
    EXPECT_EQ(intervalOf(rules, "door"), seconds(0));
}
