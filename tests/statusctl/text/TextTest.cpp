#include "statusctl/text/Text.h"

#include <gtest/gtest.h>
#include <string_view>

namespace
{

std::string bytesOf(const std::string& base64)
{
    std::string bytes;
    return Text::readBase64(base64, bytes) ? bytes : "(none)";
}

// "\xe2\x80\x8b"
std::string inHexadecimal(const std::string& bytes)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes)
    {
        const auto number = static_cast<unsigned char>(byte);
        text += std::string("\\x") + digits[number >> 4U] + digits[number & 0xFU];
    }
    return text;
}

} // namespace

TEST(TextTest, validReplacesEachByteThatIsNoUtf8)
{
    EXPECT_EQ(Text::valid("a\xff\xfe z"), "a\xef\xbf\xbd\xef\xbf\xbd z");
    EXPECT_EQ(Text::valid("Tür"), "Tür");
}

TEST(TextTest, escapedStaysOnOneLineAndIsUnambiguous)
{
    EXPECT_EQ(Text::escaped("a\nb\tc\rd\\e"), "a\\nb\\tc\\rd\\\\e");
    EXPECT_EQ(Text::escaped("\x1b[31m\x7f\xff"), "\\x1b[31m\\x7f\\xff");
    EXPECT_EQ(Text::escaped("Tür"), "Tür");
}

TEST(TextTest, aNameHasNothingThatWouldEndIt)
{
    EXPECT_EQ(Text::escapedName("a=b c\nd"), "a\\x3db\\x20c\\nd");
}

// U+0080 to U+009F control terminals, too.
TEST(TextTest, controlCharactersInUtf8AreEscaped)
{
    EXPECT_EQ(Text::escaped("\xc2\x9b"
                            "31m")
                  .find('\x9b'),
              std::string::npos);
    EXPECT_EQ(Text::harmless("\xc2\x9b"
                             "31m")
                  .find('\x9b'),
              std::string::npos);
}

// Each of them would hide part of the text, reorder it, or break the line.
TEST(TextTest, charactersThatShowNothingAreEscaped)
{
    for (const char* hidden :
         {"\u0080", "\u0085", "\u009f",     "\u00ad",     "\u034f",     "\u061c",     "\u115f",
          "\u1160", "\u17b4", "\u180e",     "\u200b",     "\u200c",     "\u200d",     "\u200e",
          "\u200f", "\u2028", "\u2029",     "\u202a",     "\u202e",     "\u2060",     "\u2066",
          "\u2069", "\u206f", "\u3164",     "\ufe00",     "\ufe0f",     "\ufeff",     "\uffa0",
          "\ufff9", "\ufffb", "\U0001bca0", "\U0001d173", "\U000e0001", "\U000e0020", "\U000e01ef"})
    {
        const std::string text = std::string("a") + hidden + "b";
        EXPECT_EQ(Text::escaped(text), "a" + inHexadecimal(hidden) + "b");
        EXPECT_EQ(Text::escapedName(text), "a" + inHexadecimal(hidden) + "b");
        EXPECT_EQ(Text::harmless(text), "a" + inHexadecimal(hidden) + "b");
    }
}

TEST(TextTest, charactersThatShowSomethingAreNotEscaped)
{
    for (const char* shown : {"~",      "\u00a1", "\u00ae", "\u0301",     "\u061b",     "\u05d0",    "\u1161",
                              "\u2010", "\u2027", "\u2030", "\u20ac",     "\u3042",     "\u4e16",    "\ue000",
                              "\ufdff", "\ufe10", "\ufffd", "\U0001f6aa", "\U000e1000", "\U0010ffff"})
    {
        EXPECT_EQ(Text::escaped(shown), shown);
        EXPECT_EQ(Text::escapedName(shown), shown);
        EXPECT_EQ(Text::harmless(shown), shown);
    }
}

// Readers take each of them, whatever its width, for the end of the name.
TEST(TextTest, allBlanksAreEscapedInNamesAlone)
{
    for (const char* blank :
         {" ", "\u00a0", "\u1680", "\u2000", "\u200a", "\u202f", "\u205f", "\u2800", "\u3000"})
    {
        EXPECT_EQ(Text::escapedName(std::string("a") + blank + "b"), "a" + inHexadecimal(blank) + "b");
        EXPECT_EQ(Text::escaped(blank), blank);
    }
}

TEST(TextTest, harmlessKeepsLinesAndTakesAwayWhatSteersATerminal)
{
    EXPECT_EQ(Text::harmless("a\nb\tc\\d"), "a\nb\tc\\d");
    EXPECT_EQ(Text::harmless("\x1b]0;title\x07"), "\\x1b]0;title\\x07");
}

TEST(TextTest, base64IsAsInRfc4648)
{
    EXPECT_EQ(Text::base64(""), "");
    EXPECT_EQ(Text::base64("f"), "Zg==");
    EXPECT_EQ(Text::base64("fo"), "Zm8=");
    EXPECT_EQ(Text::base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(Text::base64("\xff\xfe\xfd"), "//79");
}

TEST(TextTest, base64IsReadBack)
{
    for (const std::string& text :
         {std::string(), std::string("f"), std::string("fo"), std::string("\0\xff\n", 3)})
        EXPECT_EQ(bytesOf(Text::base64(text)), text);
}

TEST(TextTest, whatIsNoBase64IsRefused)
{
    for (const char* text : {"Z", "Zg=", "Zg", "Z===", "Zm9v!mFy", "Zg==Zg==", "=", "Zh=="})
        EXPECT_EQ(bytesOf(text), "(none)") << text;
}
