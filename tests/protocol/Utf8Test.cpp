// UTF-8 and other bytes.

#include <gtest/gtest.h>

#include "protocol/Utf8.h"

TEST(Utf8Test, isToldFromOtherBytes)
{
    EXPECT_TRUE(Utf8::isValid(""));
    EXPECT_TRUE(Utf8::isValid("Tür \xe2\x82\xac \xf0\x9f\x9a\xaa"));
    EXPECT_FALSE(Utf8::isValid("\xff"));
    EXPECT_FALSE(Utf8::isValid("\xe2\x82"));         // cut short
    EXPECT_FALSE(Utf8::isValid("\xc0\xaf"));         // overlong
    EXPECT_FALSE(Utf8::isValid("\xed\xa0\x80"));     // a surrogate
    EXPECT_FALSE(Utf8::isValid("\xf4\x90\x80\x80")); // beyond Unicode
}

TEST(Utf8Test, aByteThatBelongsToNoCharacterCountsAsItself)
{
    const Utf8::Character stray = Utf8::characterAt("a\xe2\x82", 1);
    EXPECT_FALSE(stray.isUtf8);
    EXPECT_EQ(stray.bytes, 1U);
    EXPECT_EQ(stray.code, 0xE2U);
    const Utf8::Character euro = Utf8::characterAt("\xe2\x82\xac", 0);
    EXPECT_TRUE(euro.isUtf8);
    EXPECT_EQ(euro.bytes, 3U);
    EXPECT_EQ(euro.code, 0x20ACU);
}
