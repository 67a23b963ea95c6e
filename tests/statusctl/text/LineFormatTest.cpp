#include "statusctl/text/LineFormat.h"

#include <gtest/gtest.h>

namespace
{

std::string filled(const std::string& format)
{
    return LineFormat(format).fill([](char letter) { return std::string("<") + letter + ">"; });
}

} // namespace

TEST(LineFormatTest, fieldsAreReplaced)
{
    EXPECT_EQ(filled("%t %k=%v"), "<t> <k>=<v>");
    EXPECT_EQ(filled("%k%k"), "<k><k>");
    EXPECT_EQ(filled("none"), "none");
}

TEST(LineFormatTest, twoPercentSignsAreOne)
{
    EXPECT_EQ(filled("%%k %v%%"), "%k <v>%");
    EXPECT_FALSE(LineFormat("%%k").has('k'));
    EXPECT_TRUE(LineFormat("%%%k").has('k'));
}

TEST(LineFormatTest, tellsTheFirstFieldThatIsUnknown)
{
    EXPECT_EQ(LineFormat("%t %% %k").unknownField("tk"), "");
    EXPECT_EQ(LineFormat("%t %x %y").unknownField("tk"), "%x");
    EXPECT_EQ(LineFormat("%%x 50%").unknownField("tk"), "%");
}
