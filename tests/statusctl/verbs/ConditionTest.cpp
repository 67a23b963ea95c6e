#include "statusctl/verbs/Condition.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

namespace
{

using Values = std::vector<Condition::Value>;

void expectHolds(const std::string& text, const Values& held, const Values& others)
{
    const Condition condition = Condition::read(text, false);
    for (const Condition::Value& value : held)
        EXPECT_TRUE(condition.holds(value)) << text << " of " << value.value_or("no value");
    for (const Condition::Value& value : others)
        EXPECT_FALSE(condition.holds(value)) << text << " of " << value.value_or("no value");
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
    expectHolds("door", {"open"}, {"", std::nullopt});
}

TEST(ConditionTest, existsIsContentWithAnEmptyValue)
{
    expectHolds("door exists", {""}, {std::nullopt});
    EXPECT_EQ(Condition::read("door exists", false).key(), "door");
}

TEST(ConditionTest, equalityIsThatOfTheTexts)
{
    expectHolds("version=2.1", {"2.1"}, {"2.10"});
    expectHolds("door=", {""}, {});
    expectHolds("door!=open", {"shut"}, {"open", std::nullopt});
}

TEST(ConditionTest, orderIsThatOfTheNumbers)
{
    expectHolds("a>9", {"10"}, {"9"});
    expectHolds("a>=9", {"9.0"}, {"8"});
    expectHolds("a<-1", {"-1.5"}, {});
    expectHolds("a<9", {}, {"10"});
    expectHolds("a<=9", {"9"}, {"10"});
}

TEST(ConditionTest, aValueThatIsNotANumberIsInNoOrder)
{
    for (const char* condition : {"a<5", "a<=5", "a>5", "a>=5"})
        expectHolds(condition, {}, {"much"});
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
