#include "statusctl/text/Text.h"

#include <gtest/gtest.h>

namespace
{

std::string bytesOf(const std::string& base64)
{
    std::string bytes;
    return Text::readBase64(base64, bytes) ? bytes : "(none)";
}

} // namespace

TEST(TextTest, utf8IsToldFromOtherBytes)
{
    EXPECT_TRUE(Text::isUtf8(""));
    EXPECT_TRUE(Text::isUtf8("Tür \xe2\x82\xac \xf0\x9f\x9a\xaa"));
    EXPECT_FALSE(Text::isUtf8("\xff"));
    EXPECT_FALSE(Text::isUtf8("\xe2\x82"));         // cut short
    EXPECT_FALSE(Text::isUtf8("\xc0\xaf"));         // longer than need be
    EXPECT_FALSE(Text::isUtf8("\xed\xa0\x80"));     // a surrogate
    EXPECT_FALSE(Text::isUtf8("\xf4\x90\x80\x80")); // beyond Unicode
}

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

// U+0080 to U+009F steer terminals too.
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
