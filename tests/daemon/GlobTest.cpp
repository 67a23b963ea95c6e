#include "daemon/Glob.h"

#include <algorithm>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <random>

namespace
{

bool matches(const std::string& pattern, const std::string& name)
{
    const Glob glob(pattern);
    const std::string& literal = glob.literal();
    if (name.compare(0, literal.size(), literal) != 0)
        return false;
    const std::string rest = name.substr(literal.size());
    return glob.rest().empty() ? rest.empty() : Glob::matches(glob.rest(), rest);
}

} // namespace

TEST(Glob, withoutAWildcardMatchesOneName)
{
    EXPECT_TRUE(matches("net.state", "net.state"));
    EXPECT_FALSE(matches("net.state", "net.states"));
    EXPECT_FALSE(matches("net.state", "net.stat"));
    EXPECT_FALSE(matches("net.state", "Net.state"));
}

TEST(Glob, aStarIsAnyTextEvenNone)
{
    EXPECT_TRUE(matches("net.*", "net."));
    EXPECT_TRUE(matches("net.*", "net.a.b/c"));
    EXPECT_FALSE(matches("net.*", "net"));
    EXPECT_TRUE(matches("*", ""));
    EXPECT_TRUE(matches("*", ".hidden/x"));
}

TEST(Glob, aStarMayStandAnywhere)
{
    EXPECT_TRUE(matches("*.state", "net.state"));
    EXPECT_FALSE(matches("*.state", "net.state2"));
    EXPECT_TRUE(matches("net.*.state", "net.eth0.state"));
    EXPECT_TRUE(matches("net.*.state", "net.a.state.b.state"));
    EXPECT_FALSE(matches("net.*.state", "net.state"));
    EXPECT_TRUE(matches("*a*b*", "xxaxxbxx"));
    EXPECT_FALSE(matches("*a*b*", "xxbxxaxx"));
}

TEST(Glob, starsInARowAreOne)
{
    EXPECT_EQ(Glob("net.***").rest(), "*");
    EXPECT_TRUE(Glob("**").matchesEverything());
    EXPECT_EQ(Glob("a?*\\**").rest(), "?*\\**");
}

TEST(Glob, aQuestionMarkIsOneLetter)
{
    EXPECT_TRUE(matches("eth?", "eth0"));
    EXPECT_FALSE(matches("eth?", "eth"));
    EXPECT_FALSE(matches("eth?", "eth10"));
    EXPECT_TRUE(matches("?th0", "eth0"));
    EXPECT_FALSE(matches("*??", "a"));
}

TEST(Glob, aQuestionMarkIsOneLetterOfManyBytes)
{
    EXPECT_TRUE(matches("t\u00fcr?", "t\u00fcr\u20ac"));
    EXPECT_TRUE(matches("t?r", "t\u00fcr"));
    EXPECT_FALSE(matches("*??", "\u20ac"));
    EXPECT_TRUE(matches("*??", "\u20ac\u20ac"));
}

TEST(Glob, aQuestionMarkIsOneByteThatIsNoText)
{
    EXPECT_TRUE(matches("a?", "a\xff"));
    EXPECT_TRUE(matches("a?b", "a\xc3"
                               "b"));
}

TEST(Glob, aBackslashTakesALetterAsItIs)
{
    EXPECT_TRUE(matches("a\\*", "a*"));
    EXPECT_FALSE(matches("a\\*", "ab"));
    EXPECT_TRUE(matches("a*\\*b", "axx*b"));
    EXPECT_FALSE(matches("a*\\*b", "axxb"));
    EXPECT_TRUE(matches("a*\\?", "ab?"));
    EXPECT_FALSE(matches("a*\\?", "abc"));
    EXPECT_TRUE(matches("a\\[0]", "a[0]"));
    EXPECT_TRUE(matches("a\\\\b", "a\\b"));
    EXPECT_TRUE(matches("a*\\\\", "ab\\"));
}

TEST(Glob, namesMayHoldZeroBytes)
{
    EXPECT_FALSE(matches("a*b", std::string("a\0", 2)));
    EXPECT_FALSE(matches("a*", std::string("\0a", 2)));
    EXPECT_TRUE(matches("a*", std::string("a\0", 2)));
    EXPECT_FALSE(matches("a?", std::string("ab\0", 3)));
}

TEST(Glob, setsOfLettersAreRefused)
{
    EXPECT_EQ(Glob::errorIn("eth[0-9]"),
              "\"[\" is not supported: write ? for any letter, or '\\[' for the bracket itself");
    EXPECT_EQ(Glob::errorIn("eth\\[0-9]"), "");
}

TEST(Glob, aBackslashAtTheEndIsRefused)
{
    EXPECT_EQ(Glob::errorIn("eth\\"), "nothing follows the last \\");
    EXPECT_EQ(Glob::errorIn("eth\\\\"), "");
}

// Trying all combinations would take practically for ever.
TEST(Glob, manyStarsAreMatchedInTime)
{
    std::string pattern;
    for (int i = 0; i < 100; ++i)
        pattern += "*a";
    EXPECT_FALSE(matches(pattern + "b", std::string(10000, 'a')));
}

// statusctl matches with fnmatch().
TEST(Glob, meansTheSameToStatusctl)
{
    std::mt19937 random{20261122};
    const auto text = [&](const std::string& letters, std::size_t longest)
    {
        std::string result(random() % (longest + 1), ' ');
        std::generate(result.begin(), result.end(), [&] { return letters[random() % letters.size()]; });
        return result;
    };
    std::size_t found = 0;
    for (int i = 0; i < 100000; ++i)
    {
        const std::string pattern = text("ab.*?\\", 8);
        const std::string name = text("ab.*?\\", 6);
        if (!Glob::errorIn(pattern).empty())
            continue;
        const bool expected = fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
        found += expected ? 1 : 0;
        ASSERT_EQ(matches(pattern, name), expected) << pattern << " and " << name;
    }
    EXPECT_GT(found, 5000U);
}
