#include "broker/policy/KeyIndex.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

namespace
{

constexpr KeyIndex::Order none = 0xffff;

std::vector<KeyIndex::Entry> entriesOf(const std::vector<Glob>& globs)
{
    std::vector<KeyIndex::Entry> entries;
    for (const Glob& glob : globs)
        entries.push_back({&glob, static_cast<KeyIndex::Order>(entries.size())});
    return entries;
}

KeyIndex indexOf(const std::vector<std::string>& texts)
{
    std::vector<Glob> globs;
    for (const std::string& text : texts)
        globs.emplace_back(text);
    return KeyIndex(entriesOf(globs));
}

bool matches(const Glob& glob, const std::string& name)
{
    const std::size_t length = glob.literal().size();
    return name.compare(0, length, glob.literal()) == 0 &&
           (glob.rest().empty() ? name.size() == length : Glob::matches(glob.rest(), name.substr(length)));
}

KeyIndex::Order findNaively(const std::vector<Glob>& globs, const std::string& name)
{
    const auto first =
        std::find_if(globs.begin(), globs.end(), [&](const Glob& glob) { return matches(glob, name); });
    return first == globs.end() ? none : static_cast<KeyIndex::Order>(first - globs.begin());
}

// Few different letters, so that texts often share beginnings and match.
class RandomTexts
{
public:
    std::string text(const std::string& letters, std::size_t longest)
    {
        std::string result(mRandom() % (longest + 1), ' ');
        std::generate(result.begin(), result.end(), [&] { return letters[mRandom() % letters.size()]; });
        return result;
    }

    std::string glob()
    {
        const std::string kinds[] = {"ab.", "ab.*", "ab.*?", "a\xff.", "ab*"};
        const std::string result = text(kinds[mRandom() % std::size(kinds)], 8);
        return mRandom() % 4 == 0 ? result + "*" : result.empty() ? "a" : result;
    }

private:
    std::mt19937 mRandom{20261122};
};

} // namespace

TEST(KeyIndex, ofNothingFindsNothing)
{
    EXPECT_EQ(indexOf({}).find("a", none), none);
    EXPECT_EQ(indexOf({}).find("", none), none);
}

TEST(KeyIndex, findsTheFirstOfThoseThatMatch)
{
    const KeyIndex index = indexOf({"net.eth0.state", "net.eth*", "net.*", "*.state", "*"});
    EXPECT_EQ(index.find("net.eth0.state", none), 0);
    EXPECT_EQ(index.find("net.eth1.state", none), 1);
    EXPECT_EQ(index.find("net.wlan0.state", none), 2);
    EXPECT_EQ(index.find("power.state", none), 3);
    EXPECT_EQ(index.find("power", none), 4);
}

TEST(KeyIndex, theEarlierOneWinsAlsoWhenItSaysLess)
{
    const KeyIndex index = indexOf({"net.*", "net.eth0", "*"});
    EXPECT_EQ(index.find("net.eth0", none), 0);
    EXPECT_EQ(indexOf({"*", "net.eth0"}).find("net.eth0", none), 0);
    EXPECT_EQ(indexOf({"*0", "net.eth0"}).find("net.eth0", none), 0);
}

TEST(KeyIndex, givesWhatIsSaidOtherwise)
{
    const KeyIndex index = indexOf({"a", "b"});
    EXPECT_EQ(index.find("c", 7), 7);
    EXPECT_EQ(index.find("b", 1), 1);
    EXPECT_EQ(index.find("b", 0), 0);
}

TEST(KeyIndex, knowsWhereNamesEnd)
{
    const KeyIndex index = indexOf({"abcd", "ab", "abce"});
    EXPECT_EQ(index.find("abcd", none), 0);
    EXPECT_EQ(index.find("ab", none), 1);
    EXPECT_EQ(index.find("abce", none), 2);
    for (const char* other : {"", "a", "abc", "abcde", "abcf", "abd", "b"})
        EXPECT_EQ(index.find(other, none), none) << other;
}

TEST(KeyIndex, takesAllBytes)
{
    std::vector<std::string> texts;
    for (int byte = 1; byte < 256; ++byte)
        texts.push_back(std::string("a\\") + static_cast<char>(byte));
    const KeyIndex index = indexOf(texts);
    for (int byte = 1; byte < 256; ++byte)
        EXPECT_EQ(index.find(std::string("a") + static_cast<char>(byte), none), byte - 1);
    EXPECT_EQ(index.find(std::string_view("a\0", 2), none), none);
}

TEST(KeyIndex, theSameGlobTwiceIsTheFirst)
{
    EXPECT_EQ(indexOf({"b", "a", "a", "a*", "a*"}).find("a", none), 1);
    EXPECT_EQ(indexOf({"b", "a?*", "a?*"}).find("abc", none), 1);
}

TEST(KeyIndex, agreesWithTryingAllOneByOne)
{
    RandomTexts random;
    std::size_t found = 0;
    for (std::size_t round = 0; round < 300; ++round)
    {
        std::vector<Glob> globs;
        for (std::size_t i = 0; i < round; ++i)
            globs.emplace_back(random.glob());
        const KeyIndex index(entriesOf(globs));
        for (int i = 0; i < 100; ++i)
        {
            const std::string name = random.text("ab.\xff", 10);
            const KeyIndex::Order expected = findNaively(globs, name);
            found += expected == none ? 0 : 1;
            ASSERT_EQ(index.find(name, none), expected) << name << " in round " << round;
        }
    }
    EXPECT_GT(found, 10000U); // but not nearly always
    EXPECT_LT(found, 29000U);
}
