#include "statusctl/device/StaleKeys.h"

#include <gtest/gtest.h>

namespace
{

using std::chrono::seconds;
using Names = std::vector<std::string>;

const StaleKeys::Clock::time_point start{seconds(1000)};

class StaleKeysTest : public testing::Test
{
protected:
    bool looked(int age, uint64_t posts, int at)
    {
        return keys.looked("door", {seconds(age), posts}, start + seconds(at));
    }

    StaleKeys keys{seconds(10)};
};

} // namespace

TEST_F(StaleKeysTest, aKeyThatIsThereIsLookedAtAtOnce)
{
    keys.add("door", start);
    EXPECT_EQ(keys.nextLook(start), start);
    EXPECT_EQ(keys.due(start), Names{"door"});
}

TEST_F(StaleKeysTest, aKeyIsLookedAtWhenItMayBecomeStale)
{
    keys.posted("door", start);
    EXPECT_EQ(keys.nextLook(start + seconds(1)), start + seconds(10));
    EXPECT_EQ(keys.due(start + seconds(9)), Names{});
    EXPECT_EQ(keys.due(start + seconds(10)), Names{"door"});
}

TEST_F(StaleKeysTest, aPostThatWasNotHeardOfPutsItOff)
{
    keys.posted("door", start);
    EXPECT_FALSE(looked(3, 2, 10));
    EXPECT_EQ(keys.nextLook(start + seconds(10)), start + seconds(17));
}

TEST_F(StaleKeysTest, isToldOnceUntilTheNextPost)
{
    keys.posted("door", start);
    EXPECT_TRUE(looked(10, 1, 10));
    EXPECT_FALSE(looked(20, 1, 20));
    EXPECT_FALSE(looked(30, 1, 30));
    EXPECT_TRUE(looked(10, 2, 40));
}

TEST_F(StaleKeysTest, aStaleKeyIsLookedAtWhenItMayBeStaleAgain)
{
    keys.posted("door", start);
    EXPECT_TRUE(looked(10, 1, 10));
    EXPECT_EQ(keys.nextLook(start + seconds(10)), start + seconds(20));
}

TEST_F(StaleKeysTest, aPostThatIsHeardOfEndsIt)
{
    keys.posted("door", start);
    EXPECT_TRUE(looked(10, 1, 10));
    keys.posted("door", start + seconds(11));
    EXPECT_EQ(keys.nextLook(start + seconds(11)), start + seconds(21));
    EXPECT_TRUE(looked(10, 1, 21)); // a new broker may count from 1 again
}

TEST_F(StaleKeysTest, aPostThatIsHeardOfWhileItIsAskedForCountsMore)
{
    keys.posted("door", start);
    keys.posted("door", start + seconds(11));
    EXPECT_FALSE(looked(10, 1, 10));
    EXPECT_EQ(keys.nextLook(start + seconds(11)), start + seconds(21));
}

TEST_F(StaleKeysTest, anUnknownTimeCountsFromTheBeginning)
{
    keys.add("door", start);
    EXPECT_FALSE(keys.looked("door", {std::nullopt, 0}, start));
    EXPECT_EQ(keys.nextLook(start), start + seconds(10));
    EXPECT_TRUE(keys.looked("door", {std::nullopt, 0}, start + seconds(10)));
}

TEST_F(StaleKeysTest, aKeyThatHasGoneIsForgotten)
{
    keys.add("door", start);
    keys.remove("door");
    EXPECT_EQ(keys.due(start), Names{});
    EXPECT_FALSE(looked(100, 1, 0));
}
