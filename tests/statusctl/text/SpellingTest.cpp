#include "statusctl/text/Spelling.h"

#include <gtest/gtest.h>

namespace
{

const std::vector<std::string> known{"get", "set", "reset", "watch", "top"};

} // namespace

TEST(SpellingTest, eachMistakeCountsOnce)
{
    EXPECT_EQ(Spelling::distance("set", "set"), 0U);
    EXPECT_EQ(Spelling::distance("set", "sett"), 1U);
    EXPECT_EQ(Spelling::distance("set", "st"), 1U);
    EXPECT_EQ(Spelling::distance("set", "sit"), 1U);
    EXPECT_EQ(Spelling::distance("set", "ste"), 1U);
    EXPECT_EQ(Spelling::distance("", "set"), 3U);
    EXPECT_EQ(Spelling::distance("watch", "wahct"), 2U);
}

TEST(SpellingTest, theNearestWordIsFound)
{
    EXPECT_EQ(Spelling::nearest("sett", known), "set");
    EXPECT_EQ(Spelling::nearest("rset", known), "set");
    EXPECT_EQ(Spelling::nearest("resset", known), "reset");
    EXPECT_EQ(Spelling::nearest("wacth", known), "watch");
}

TEST(SpellingTest, aWordThatIsNotNearIsNotFound)
{
    EXPECT_EQ(Spelling::nearest("foo", known), "");
    EXPECT_EQ(Spelling::nearest("watchdogs", known), "");
    EXPECT_EQ(Spelling::nearest(std::string(1000000, 's'), known), "");
    EXPECT_EQ(Spelling::nearest("", known), "");
}
