#include "statusctl/text/Duration.h"

#include <gtest/gtest.h>

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(DurationTest, aNumberAloneIsInSeconds)
{
    EXPECT_EQ(Duration::read("5"), milliseconds(5000));
    EXPECT_EQ(Duration::read("0.25"), milliseconds(250));
    EXPECT_EQ(Duration::read("0"), milliseconds(0));
}

TEST(DurationTest, unitsAreUnderstood)
{
    EXPECT_EQ(Duration::read("500ms"), milliseconds(500));
    EXPECT_EQ(Duration::read("2s"), milliseconds(2000));
    EXPECT_EQ(Duration::read("2m"), milliseconds(120000));
    EXPECT_EQ(Duration::read("1.5h"), milliseconds(5400000));
}

TEST(DurationTest, anythingElseIsRefused)
{
    for (const char* text : {"", "x", "-1", "5x", "5 s", "1e3", "nan", "inf", "5ms5", "1001h", " 5"})
        EXPECT_EQ(Duration::read(text), std::nullopt) << text;
}

TEST(DurationTest, isWrittenInTheUnitThatFits)
{
    EXPECT_EQ(Duration::write(milliseconds(5000)), "5 s");
    EXPECT_EQ(Duration::write(milliseconds(1500)), "1.5 s");
    EXPECT_EQ(Duration::write(milliseconds(500)), "500 ms");
    EXPECT_EQ(Duration::write(microseconds(250)), "0.25 ms");
}

TEST(DurationTest, isWrittenExactlyAsItIsRead)
{
    for (const char* text : {"0ms", "300ms", "1500ms", "5s", "90s", "2m", "1h", "1000h"})
        EXPECT_EQ(Duration::writeExactly(Duration::read(text).value()), text);
    EXPECT_EQ(Duration::writeExactly(Duration::read("1.5").value()), "1500ms");
}

TEST(DurationTest, agesAreWrittenInTheirLargestUnit)
{
    using std::chrono::seconds;
    EXPECT_EQ(Duration::age(seconds(-5)), "0s");
    EXPECT_EQ(Duration::age(seconds(59)), "59s");
    EXPECT_EQ(Duration::age(seconds(119)), "1m");
    EXPECT_EQ(Duration::age(seconds(3600)), "1h");
    EXPECT_EQ(Duration::age(seconds(86399)), "23h");
    EXPECT_EQ(Duration::age(seconds(86400 * 400)), "400d");
}
