#include "statusmanager/SubscriptionIndex.h"

#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>

namespace
{

std::string key(std::size_t number)
{
    return "key" + std::to_string(number);
}

StatusKeys keys(std::size_t count)
{
    StatusKeys all;
    for (std::size_t number = 0; number < count; ++number)
        all.push_back(key(number));
    return all;
}

class SubscriptionIndexTest : public testing::Test
{
protected:
    bool contains(const StatusKeys& list, std::size_t number) { return index.in(list).contains(key(number)); }

    // Expects that exactly the keys in the list are found, among keys with smaller numbers than `keysBelow`.
    void expectAgreement(const StatusKeys& list, std::size_t keysBelow)
    {
        const std::set<std::string> expected(list.begin(), list.end());
        const SubscriptionIndex::Lookup lookup = index.in(list);
        for (std::size_t number = 0; number < keysBelow; ++number)
            ASSERT_EQ(lookup.contains(key(number)), expected.count(key(number)) != 0)
                << key(number) << " of " << list.size();
    }

    SubscriptionIndex index;
};

} // namespace

TEST_F(SubscriptionIndexTest, findsWhatIsInAListOfAnyLength)
{
    for (std::size_t count = 0; count < 30; ++count)
    {
        const StatusKeys list = keys(count);
        expectAgreement(list, 40);
        index.forget(list);
    }
}

TEST_F(SubscriptionIndexTest, findsWhatAListHasGrownBySinceTheLastLookup)
{
    StatusKeys list;
    for (std::size_t number = 0; number < 30; ++number)
    {
        list.push_back(key(number));
        expectAgreement(list, 40);
    }
}

TEST_F(SubscriptionIndexTest, findsEachOfThousands)
{
    constexpr std::size_t count = 5000;
    StatusKeys list = keys(count);
    expectAgreement(list, 2 * count);
    for (std::size_t number = 0; number < count; number += 2)
        index.erase(list, key(number));
    EXPECT_EQ(list.size(), count / 2);
    expectAgreement(list, 2 * count);
}

TEST_F(SubscriptionIndexTest, namesWithNulAndEmptyOnesAreKeysLikeOthers)
{
    StatusKeys list = keys(20);
    EXPECT_FALSE(index.in(list).contains(""));
    list.emplace_back();
    list.emplace_back("a\0b", 3);
    EXPECT_TRUE(index.in(list).contains(""));
    EXPECT_TRUE(index.in(list).contains(std::string("a\0b", 3)));
    EXPECT_FALSE(index.in(list).contains("a"));
}

TEST_F(SubscriptionIndexTest, erasingKeepsTheOrderOfTheRest)
{
    StatusKeys list = keys(12);
    expectAgreement(list, 12);
    index.erase(list, key(0));
    index.erase(list, key(5));
    index.erase(list, key(11));
    StatusKeys expected;
    for (const std::size_t number : {1U, 2U, 3U, 4U, 6U, 7U, 8U, 9U, 10U})
        expected.push_back(key(number));
    EXPECT_EQ(list, expected);
    expectAgreement(list, 20);
}

TEST_F(SubscriptionIndexTest, erasingWhatIsNotThereChangesNothing)
{
    StatusKeys list = keys(12);
    index.erase(list, "unknown");
    EXPECT_EQ(list, keys(12));
    expectAgreement(list, 20);
    index.erase(list, "unknown");
    EXPECT_EQ(list, keys(12));
    expectAgreement(list, 20);
}

TEST_F(SubscriptionIndexTest, whatWasAddedSinceTheLastLookupCanBeErased)
{
    StatusKeys list = keys(12);
    expectAgreement(list, 12);
    list.push_back(key(12));
    list.push_back(key(13));
    index.erase(list, key(12));
    expectAgreement(list, 20);
}

TEST_F(SubscriptionIndexTest, theLastElementCanBeTakenWhetherItWasLookedUpOrNot)
{
    StatusKeys list = keys(12);
    expectAgreement(list, 12);
    index.popBack(list); // looked up
    EXPECT_EQ(list, keys(11));
    list.push_back(key(20));
    index.popBack(list); // not looked up
    EXPECT_EQ(list, keys(11));
    expectAgreement(list, 30);
    StatusKeys never = keys(3);
    index.popBack(never);
    EXPECT_EQ(never, keys(2));
}

TEST_F(SubscriptionIndexTest, aListMayBecomeShortAndLongAgain)
{
    StatusKeys list = keys(20);
    expectAgreement(list, 20);
    for (std::size_t number = 3; number < 20; ++number)
    {
        index.erase(list, key(number));
        expectAgreement(list, 20);
    }
    for (std::size_t number = 30; number < 50; ++number)
    {
        list.push_back(key(number));
        expectAgreement(list, 60);
    }
}

TEST_F(SubscriptionIndexTest, listsAreKeptApart)
{
    const StatusKeys even{key(0),  key(2),  key(4),  key(6),  key(8),
                          key(10), key(12), key(14), key(16), key(18)};
    const StatusKeys odd{key(1), key(3), key(5), key(7), key(9), key(11), key(13), key(15), key(17), key(19)};
    expectAgreement(even, 20);
    expectAgreement(odd, 20);
    index.forget(odd);
    expectAgreement(even, 20);
}

// A new list may get the address of a destroyed list.
TEST_F(SubscriptionIndexTest, aForgottenListLeavesNothing)
{
    StatusKeys list = keys(20);
    expectAgreement(list, 20);
    index.forget(list);
    list = StatusKeys();
    for (std::size_t number = 100; number < 120; ++number)
        list.push_back(key(number));
    expectAgreement(list, 150);
}

TEST_F(SubscriptionIndexTest, clearedItHasForgottenAllLists)
{
    StatusKeys first = keys(20);
    StatusKeys second = keys(15);
    expectAgreement(first, 20);
    expectAgreement(second, 20);
    index.clear();
    first.clear();
    second.clear();
    for (std::size_t number = 100; number < 120; ++number)
    {
        first.push_back(key(number));
        second.push_back(key(number + 20));
    }
    expectAgreement(first, 150);
    expectAgreement(second, 150);
}

// Compares with a plain search after each of thousands of steps.
TEST_F(SubscriptionIndexTest, agreesWithAPlainSearchWhateverComesAfterWhat)
{
    constexpr std::size_t names = 40;
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same steps in every run
    StatusKeys list;
    for (int step = 0; step < 20000; ++step)
    {
        const std::string name = key(random() % names);
        const bool isThere = std::find(list.begin(), list.end(), name) != list.end();
        switch (random() % 5)
        {
        case 0:
        case 1:
            if (!isThere)
                list.push_back(name);
            break;
        case 2:
            index.erase(list, name);
            ASSERT_EQ(std::find(list.begin(), list.end(), name), list.end());
            break;
        case 3:
            if (!list.empty() && random() % 4 == 0)
                index.popBack(list);
            break;
        default:
            ASSERT_EQ(index.in(list).contains(name), isThere) << "step " << step;
        }
    }
    expectAgreement(list, names);
}
