#include "statusctl/text/Number.h"

#include <gtest/gtest.h>

TEST(NumberTest, numbersAreComparedByTheirSize)
{
    EXPECT_LT(Number::compare("9", "10"), 0);
    EXPECT_GT(Number::compare("-1", "-2"), 0);
    EXPECT_EQ(Number::compare("5", "5.0"), 0);
    EXPECT_LT(Number::compare("0.5", "1e3"), 0);
}

TEST(NumberTest, largeWholeNumbersAreComparedExactly)
{
    EXPECT_LT(Number::compare("9007199254740992", "9007199254740993"), 0);
    EXPECT_GT(Number::compare("-9007199254740992", "-9007199254740993"), 0);
    EXPECT_GT(Number::compare("18446744073709551615", "18446744073709551614"), 0);
    EXPECT_GT(Number::compare("18446744073709551615", "-1"), 0);
}

TEST(NumberTest, whatIsNotANumberCannotBeCompared)
{
    for (const char* text : {"", "x", "5 V", " 5", "5\n", "0x10", "+5", "nan", "inf", "1,5"})
    {
        EXPECT_EQ(Number::compare(text, "1"), std::nullopt) << text;
        EXPECT_EQ(Number::compare("1", text), std::nullopt) << text;
        EXPECT_FALSE(Number::isNumber(text)) << text;
    }
}
