#include "statusctl/device/Change.h"

#include <gtest/gtest.h>

#include "statusctl/text/Json.h"

namespace
{

const Timestamp::Time moment{std::chrono::microseconds(1780000000123456)};

std::string written(Change::Kind kind, const std::string& name, const std::string& value)
{
    return JsonText::write(toJson({moment, kind, name, value}), Settings::Json::Short);
}

} // namespace

// Scripts read these lines: see docs/statusctl.md.
TEST(ChangeTest, isWrittenAsDocumented)
{
    EXPECT_EQ(written(Change::Kind::Initial, "door", "open"),
              R"({"kind":"initial","name":"door","time":"2026-05-28T20:26:40.123456Z","value":"open"})");
    EXPECT_EQ(written(Change::Kind::Synced, "", ""),
              R"({"kind":"synced","time":"2026-05-28T20:26:40.123456Z"})");
    EXPECT_EQ(written(Change::Kind::Lost, "", ""), R"({"kind":"lost","time":"2026-05-28T20:26:40.123456Z"})");
    EXPECT_EQ(written(Change::Kind::Gone, "door", ""),
              R"({"kind":"gone","name":"door","time":"2026-05-28T20:26:40.123456Z","value":""})");
    EXPECT_EQ(written(Change::Kind::Changed, "raw", "\xff"),
              R"({"kind":"changed","name":"raw","time":"2026-05-28T20:26:40.123456Z","valueBase64":"/w=="})");
    EXPECT_EQ(written(Change::Kind::Reset, "door", ""),
              R"({"kind":"reset","name":"door","time":"2026-05-28T20:26:40.123456Z","value":""})");
    EXPECT_EQ(written(Change::Kind::Event, "bell", "rang"),
              R"({"kind":"event","name":"bell","time":"2026-05-28T20:26:40.123456Z","value":"rang"})");
    EXPECT_EQ(written(Change::Kind::Stale, "door", "open"),
              R"({"kind":"stale","name":"door","time":"2026-05-28T20:26:40.123456Z","value":"open"})");
}

TEST(ChangeTest, isReadBack)
{
    for (const Change::Kind kind : {Change::Kind::Initial, Change::Kind::Changed, Change::Kind::Reset,
                                    Change::Kind::Event, Change::Kind::Stale, Change::Kind::Gone})
    {
        const std::optional<Change> change = readChange(written(kind, "door", "a\xff\n"));
        ASSERT_TRUE(change);
        EXPECT_EQ(change->kind, kind);
        EXPECT_EQ(change->time, moment);
        EXPECT_EQ(change->name, "door");
        EXPECT_EQ(change->value, "a\xff\n");
    }
    for (const Change::Kind kind : {Change::Kind::Synced, Change::Kind::Lost})
    {
        const std::optional<Change> mark = readChange(written(kind, "", ""));
        ASSERT_TRUE(mark);
        EXPECT_EQ(mark->kind, kind);
    }
}

TEST(ChangeTest, anythingElseIsRefused)
{
    const std::string good =
        R"({"kind":"changed","name":"a","time":"2026-05-28T20:26:40.123456Z","value":"b"})";
    EXPECT_TRUE(readChange(good));
    for (const char* text :
         {"", "{}", "[]", "door=open", R"({"kind":"changed","name":"a","time":"now","value":"b"})",
          R"({"kind":"melted","name":"a","time":"2026-05-28T20:26:40.123456Z","value":"b"})",
          R"({"kind":"changed","name":1,"time":"2026-05-28T20:26:40.123456Z","value":"b"})",
          R"({"kind":"changed","name":"a","time":"2026-05-28T20:26:40.123456Z"})",
          R"({"kind":"changed","time":"2026-05-28T20:26:40.123456Z","value":"b"})"})
        EXPECT_FALSE(readChange(text)) << text;
}
