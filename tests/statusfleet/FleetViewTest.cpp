#include "statusfleet/FleetView.h"

#include <gtest/gtest.h>

namespace
{

using Values = DeviceView::Values;

class FleetViewTest : public testing::Test
{
protected:
    // Returns how many changes the message has brought.
    std::size_t take(const std::string& levels, const std::string& payload)
    {
        return mView.take({"fleet/" + levels, payload, false, std::nullopt}).size();
    }

    const DeviceView& truck() const { return *mView.find("truck"); }

    FleetView mView{"fleet"};
};

TEST_F(FleetViewTest, aValueIsSetAndReset)
{
    EXPECT_EQ(take("truck/status/door", "open"), 1U);
    EXPECT_EQ(take("truck/status/door", "open"), 0U);
    EXPECT_EQ(truck().values, (Values{{"door", "open"}}));
    EXPECT_EQ(take("truck/status/door", ""), 1U);
    EXPECT_EQ(truck().values, Values());
}

TEST_F(FleetViewTest, namesAreDecodedAndForeignOnesIgnored)
{
    take("a%2Fb/status/c%25", "1");
    EXPECT_EQ(mView.find("a/b")->values, (Values{{"c%", "1"}}));
    EXPECT_EQ(take("%zz/status/x", "1"), 0U);
    EXPECT_EQ(take("truck/status/%6", "1"), 0U);
    EXPECT_EQ(mView.take({"other/truck/status/x", "1", false, std::nullopt}).size(), 0U);
}

TEST_F(FleetViewTest, aWillOfAnOlderSessionDoesNotHideTheNewOne)
{
    take("truck/online", R"({"online":true,"session":7,"version":"1.2","since":5,"time":6})");
    take("truck/online", R"({"online":false,"session":6})");
    EXPECT_TRUE(truck().isOnline);
    EXPECT_EQ(truck().version, "1.2");
    take("truck/online", R"({"online":false,"session":7})");
    EXPECT_FALSE(truck().isOnline);
}

TEST_F(FleetViewTest, aBirthIsTheWholeStateAndDataTheChanges)
{
    take("truck/birth", R"({"session":7,"sequence":1,"values":{"door":"open","lamp":"on"}})");
    take("truck/data", R"({"session":7,"sequence":2,"values":{"door":""}})");
    EXPECT_EQ(truck().values, (Values{{"lamp", "on"}}));
    take("truck/birth", R"({"session":8,"sequence":1,"values":{"fan":"1"}})");
    EXPECT_EQ(truck().values, (Values{{"fan", "1"}}));
    EXPECT_TRUE(mView.missing().empty());
}

TEST_F(FleetViewTest, aMissingMessageIsNoticedUntilTheNextBirth)
{
    take("truck/birth", R"({"session":7,"sequence":1,"values":{}})");
    take("truck/data", R"({"session":7,"sequence":3,"values":{"door":"open"}})");
    EXPECT_EQ(mView.missing().count("truck"), 1U);
    take("truck/data", R"({"session":7,"sequence":4,"values":{"door":"shut"}})");
    EXPECT_TRUE(truck().needsBirth);
    take("truck/birth", R"({"session":7,"sequence":5,"values":{"door":"shut"}})");
    EXPECT_TRUE(mView.missing().empty());
}

TEST_F(FleetViewTest, aMessageThatIsRepeatedOrOldChangesNothing)
{
    take("truck/birth", R"({"session":7,"sequence":1,"values":{"door":"open"}})");
    take("truck/data", R"({"session":7,"sequence":2,"values":{"door":"shut"}})");
    EXPECT_EQ(take("truck/data", R"({"session":7,"sequence":1,"values":{"door":"ajar"}})"), 0U);
    EXPECT_EQ(take("truck/birth", R"({"session":6,"sequence":9,"values":{"door":"ajar"}})"), 0U);
    EXPECT_EQ(truck().values.at("door"), "shut");
}

TEST_F(FleetViewTest, whatIsMalformedIsIgnored)
{
    for (const char* wrong : {"", "x", "[]", "{}", R"({"online":1})", R"({"session":"a","values":[]})",
                              R"({"session":1,"sequence":2,"values":{"a":1}})", "\xff"})
    {
        EXPECT_EQ(take("truck/online", wrong), 0U) << wrong;
        EXPECT_EQ(take("truck/birth", wrong), 0U) << wrong;
        EXPECT_EQ(take("truck/data", wrong), 0U) << wrong;
    }
    EXPECT_EQ(take("truck", "x"), 0U);
    EXPECT_EQ(take("", "x"), 0U);
}

} // namespace
