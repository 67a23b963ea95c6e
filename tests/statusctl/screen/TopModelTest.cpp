#include "statusctl/screen/TopModel.h"

#include <gtest/gtest.h>

namespace
{

using std::chrono::seconds;

const TopModel::Clock::time_point start{seconds(1000)};

Change change(Change::Kind kind, const std::string& name, const std::string& value)
{
    return {Timestamp::Time(), kind, name, value};
}

std::string keysOf(const std::vector<TopModel::Row>& rows)
{
    std::string keys;
    for (const TopModel::Row& row : rows)
        keys += row.key + " ";
    return keys;
}

} // namespace

TEST(TopModelTest, rowsAreSortedByKeyAndHoldTheLatestValue)
{
    TopModel model;
    model.take(change(Change::Kind::Initial, "b", "1"), start);
    model.take(change(Change::Kind::Initial, "a", "1"), start);
    model.take(change(Change::Kind::Changed, "b", "2"), start);
    const auto rows = model.rows("", start);
    EXPECT_EQ(keysOf(rows), "a b ");
    EXPECT_EQ(rows[1].value, "2");
}

TEST(TopModelTest, aKeyThatIsGoneLeavesNoRow)
{
    TopModel model;
    model.take(change(Change::Kind::Initial, "a", "1"), start);
    model.take(change(Change::Kind::Initial, "b", "1"), start);
    model.take(change(Change::Kind::Lost, "", ""), start);
    model.take(change(Change::Kind::Gone, "a", ""), start);
    EXPECT_EQ(keysOf(model.rows("", start)), "b ");
}

TEST(TopModelTest, whatTheBrokerTellsOfAPostCountsAsItsAge)
{
    TopModel model;
    model.take(change(Change::Kind::Initial, "a", "1"), start);
    model.takeDetails("a", seconds(60), "net.service", start);
    model.takeDetails("gone", seconds(60), "net.service", start);
    ASSERT_EQ(model.rows("", start).size(), 1U);
    const TopModel::Row row = model.rows("", start + seconds(1))[0];
    EXPECT_EQ(row.age, seconds(61));
    EXPECT_TRUE(row.isAgeKnown);
    EXPECT_EQ(row.poster, "net.service");
    EXPECT_FALSE(row.hasJustChanged);
}

TEST(TopModelTest, aBrokerThatDoesNotKnowTheLastPostLeavesTheAgeAsItWas)
{
    TopModel model;
    model.take(change(Change::Kind::Changed, "a", "1"), start);
    model.takeDetails("a", std::nullopt, "-", start + seconds(2));
    EXPECT_EQ(model.rows("", start + seconds(3))[0].age, seconds(3));
}

TEST(TopModelTest, onlyAChangeIsShownAsOne)
{
    TopModel model;
    model.take(change(Change::Kind::Changed, "a", "1"), start);
    EXPECT_TRUE(model.rows("", start + seconds(1))[0].hasJustChanged);
    model.takeDetails("a", seconds(0), "-", start + seconds(3));
    EXPECT_FALSE(model.rows("", start + seconds(3))[0].hasJustChanged);
}

TEST(TopModelTest, ageIsKnownFromTheFirstChangeOn)
{
    TopModel model;
    model.take(change(Change::Kind::Initial, "a", "1"), start);
    EXPECT_FALSE(model.rows("", start)[0].isAgeKnown);
    model.take(change(Change::Kind::Changed, "a", "2"), start);
    EXPECT_TRUE(model.rows("", start)[0].isAgeKnown);
    EXPECT_EQ(model.rows("", start + seconds(7))[0].age, seconds(7));
}

TEST(TopModelTest, rateIsOfTheLastTenSeconds)
{
    TopModel model;
    for (int number = 0; number < 20; ++number)
        model.take(change(Change::Kind::Changed, "a", "x"), start + seconds(number));
    EXPECT_DOUBLE_EQ(model.rows("", start + seconds(19))[0].changesPerSecond, 1.0);
    EXPECT_DOUBLE_EQ(model.rows("", start + seconds(24))[0].changesPerSecond, 0.5);
    EXPECT_DOUBLE_EQ(model.rows("", start + seconds(100))[0].changesPerSecond, 0.0);
}

TEST(TopModelTest, aFilterLooksIntoKeysAndValuesWhateverTheCase)
{
    TopModel model;
    model.take(change(Change::Kind::Initial, "front.Door", "shut"), start);
    model.take(change(Change::Kind::Initial, "lamp", "by the DOOR"), start);
    model.take(change(Change::Kind::Initial, "fan", "off"), start);
    EXPECT_EQ(keysOf(model.rows("door", start)), "front.Door lamp ");
    EXPECT_EQ(keysOf(model.rows("", start)), "fan front.Door lamp ");
}

TEST(TopModelTest, theNewestEventsAreKept)
{
    TopModel model;
    for (int number = 0; number < 1500; ++number)
        model.take(change(Change::Kind::Event, "bell", std::to_string(number)), start);
    EXPECT_EQ(model.events().size(), 1000U);
    EXPECT_EQ(model.events().front().value, "1499");
    EXPECT_EQ(model.keyCount(), 0U);
}
