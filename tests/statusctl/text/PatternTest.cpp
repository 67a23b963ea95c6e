#include "statusctl/text/Pattern.h"

#include <gtest/gtest.h>

TEST(PatternTest, aNameWithoutSpecialLettersMatchesItselfOnly)
{
    const Pattern pattern({"door"});
    EXPECT_TRUE(pattern.matches("door"));
    EXPECT_FALSE(pattern.matches("door2"));
    EXPECT_FALSE(pattern.hasGlobs());
}

TEST(PatternTest, starsQuestionMarksAndBracketsAreGlobs)
{
    const Pattern pattern({"net.*", "disk.?", "cpu[0-3]"});
    EXPECT_TRUE(pattern.matches("net.eth0.bytes"));
    EXPECT_TRUE(pattern.matches("disk.a"));
    EXPECT_TRUE(pattern.matches("cpu2"));
    EXPECT_FALSE(pattern.matches("disk.ab"));
    EXPECT_FALSE(pattern.matches("cpu4"));
    EXPECT_TRUE(pattern.hasGlobs());
}

TEST(PatternTest, aStarAloneMatchesEveryName)
{
    const Pattern pattern({"*"});
    for (const char* name : {"a", ".hidden", "a/b", "", "a b"})
        EXPECT_TRUE(pattern.matches(name)) << name;
}

TEST(PatternTest, aBackslashTakesTheNextLetterAsItIs)
{
    const Pattern pattern({"a\\*"});
    EXPECT_TRUE(pattern.matches("a*"));
    EXPECT_FALSE(pattern.matches("ab"));
}

TEST(PatternTest, ofNamesTakesEveryLetterAsItIs)
{
    const Pattern pattern = Pattern::ofNames({"a*"});
    EXPECT_TRUE(pattern.isExact("a*"));
    EXPECT_FALSE(pattern.matches("ab"));
    EXPECT_FALSE(pattern.hasGlobs());
}

TEST(PatternTest, tellsGlobsFromNames)
{
    for (const char* glob : {"*", "net.?", "a[1]", "a\\*"})
        EXPECT_TRUE(Pattern::isGlob(glob)) << glob;
    for (const char* name : {"", "net.rx", "a]", "a{b,c}"})
        EXPECT_FALSE(Pattern::isGlob(name)) << name;
}

TEST(PatternTest, ofNothingMatchesNothing)
{
    EXPECT_FALSE(Pattern().matches(""));
    EXPECT_TRUE(Pattern().empty());
}
