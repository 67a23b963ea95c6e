#include "statusctl/verbs/Condition.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

namespace
{

bool holds(const std::string& condition, const Condition::Value& value)
{
    return Condition::read(condition, false).holds(value);
}

std::string refusalOf(const std::string& condition)
{
    try
    {
        Condition::read(condition, false);
    }
    catch (const CLI::ValidationError& error)
    {
        return error.what();
    }
    return "";
}

} // namespace

TEST(ConditionTest, aKeyAloneAsksForAValueThatIsNotEmpty)
{
    EXPECT_TRUE(holds("door", "open"));
    EXPECT_FALSE(holds("door", ""));
    EXPECT_FALSE(holds("door", std::nullopt));
}

TEST(ConditionTest, existsIsContentWithAnEmptyValue)
{
    EXPECT_TRUE(holds("door exists", ""));
    EXPECT_FALSE(holds("door exists", std::nullopt));
    EXPECT_EQ(Condition::read("door exists", false).key(), "door");
}

TEST(ConditionTest, equalityIsThatOfTheTexts)
{
    EXPECT_TRUE(holds("version=2.1", "2.1"));
    EXPECT_FALSE(holds("version=2.1", "2.10"));
    EXPECT_TRUE(holds("door=", ""));
    EXPECT_TRUE(holds("door!=open", "shut"));
    EXPECT_FALSE(holds("door!=open", "open"));
    EXPECT_FALSE(holds("door!=open", std::nullopt));
}

TEST(ConditionTest, orderIsThatOfTheNumbers)
{
    EXPECT_TRUE(holds("a>9", "10"));
    EXPECT_FALSE(holds("a>9", "9"));
    EXPECT_TRUE(holds("a>=9", "9.0"));
    EXPECT_FALSE(holds("a>=9", "8"));
    EXPECT_TRUE(holds("a<-1", "-1.5"));
    EXPECT_FALSE(holds("a<9", "10"));
    EXPECT_TRUE(holds("a<=9", "9"));
    EXPECT_FALSE(holds("a<=9", "10"));
}

TEST(ConditionTest, aValueThatIsNotANumberIsInNoOrder)
{
    for (const char* condition : {"a<5", "a<=5", "a>5", "a>=5"})
        EXPECT_FALSE(holds(condition, "much")) << condition;
}

TEST(ConditionTest, whatIsNotUnderstoodIsRefused)
{
    for (const char* text : {"a==1", "a=~x", "a=>1", "a=<1", "a<>1", "a!==1", "a > 0", "a = 1", "!a", "a~1",
                             "a is open", "=x", "", ">5", "net.*", "net.*=1"})
        EXPECT_NE(refusalOf(text), "") << text;
    EXPECT_EQ(refusalOf("a>x"), "\"a>x\": \"x\" is not a number");
    EXPECT_EQ(refusalOf("=x"), "missing key in \"=x\"");
}

TEST(ConditionTest, literallyAnyValueAndNearlyAnyKeyCanBeNamed)
{
    EXPECT_TRUE(Condition::read("odd key[1]==x", true).holds("=x"));
    EXPECT_EQ(Condition::read("odd key[1]==x", true).key(), "odd key[1]");
}

TEST(ConditionTest, tellsWhatIsWanted)
{
    const auto wanted = [](const char* text) { return Condition::read(text, false).wanted(); };
    EXPECT_EQ(wanted("a=up"), "\"up\"");
    EXPECT_EQ(wanted("a!=up"), "not \"up\"");
    EXPECT_EQ(wanted("a<5"), "< 5");
    EXPECT_EQ(wanted("a"), "a non-empty value");
    EXPECT_EQ(wanted("a exists"), "any value");
}
