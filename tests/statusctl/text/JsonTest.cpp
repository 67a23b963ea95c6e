#include "statusctl/text/Json.h"

#include <gtest/gtest.h>

#include "statusctl/base/Failure.h"

namespace
{

std::string shortly(const StatusMap& values)
{
    return JsonText::write(JsonText::ofValues(values), Settings::Json::Short);
}

std::string reasonToRefuse(const std::string& text)
{
    try
    {
        JsonText::readValues(JsonText::readRoot(text));
    }
    catch (const Failure& failure)
    {
        return failure.what();
    }
    return "(taken)";
}

} // namespace

TEST(JsonTest, valuesAreAnObjectOfTexts)
{
    EXPECT_EQ(shortly({{"door", "open"}, {"lamp", ""}}), R"({"values":{"door":"open","lamp":""}})");
    EXPECT_EQ(shortly({}), R"({"values":{}})");
}

TEST(JsonTest, aValueThatIsNotUtf8GoesAsBase64)
{
    EXPECT_EQ(shortly({{"door", "Tür"}, {"raw", "\xff\xfe"}}),
              R"({"base64":{"raw":"//4="},"values":{"door":"Tür"}})");
}

TEST(JsonTest, hiddenCharactersAreEscaped)
{
    EXPECT_EQ(shortly({{"a\u200b", "\u009b\u007f\u2028\u202e\U000e0041\x1b"}}),
              "{\"values\":{\"a\\u200b\":\"\\u009b\\u007f\\u2028\\u202e\\udb40\\udc41\\u001b\"}}");
}

TEST(JsonTest, whatIsEscapedIsReadBack)
{
    const StatusMap values{{"a\u200b", "\u009b\u007f\u2028\U0001bca0\U000e0041 \\u202e \u202e"}};
    EXPECT_EQ(JsonText::readValues(JsonText::readRoot(shortly(values))), values);
}

TEST(JsonTest, valuesAreReadBack)
{
    const StatusMap values{{"door", "Tür"}, {"empty", ""}, {"raw", "\xff\n"}, {"quote", "\"\\\n"}};
    EXPECT_EQ(JsonText::readValues(JsonText::readRoot(shortly(values))), values);
    EXPECT_EQ(JsonText::readValues(
                  JsonText::readRoot(JsonText::write(JsonText::ofValues(values), Settings::Json::Pretty))),
              values);
}

TEST(JsonTest, valuesOfAnotherShapeAreRefusedWithTheReason)
{
    EXPECT_EQ(reasonToRefuse(""), "not a JSON object");
    EXPECT_EQ(reasonToRefuse("[]"), "not a JSON object");
    EXPECT_EQ(reasonToRefuse(R"({"values":{}} x)"), "not a JSON object");
    EXPECT_EQ(reasonToRefuse(std::string(100000, '[')), "not a JSON object");
    EXPECT_EQ(reasonToRefuse("{}"), "missing \"values\", as \"statusctl dump --json\" writes them");
    EXPECT_EQ(reasonToRefuse(R"({"values":[]})"), "\"values\" is not an object");
    EXPECT_EQ(reasonToRefuse(R"({"values":{"a":1}})"), "the value of \"a\" is not a string");
    EXPECT_EQ(reasonToRefuse(R"({"base64":{"a":"!"}})"), "the value of \"a\" is not base64");
    EXPECT_EQ(reasonToRefuse(R"({"values":{"a":"1"},"base64":{"a":"/w=="}})"),
              "\"a\" is in \"values\" and in \"base64\"");
}

TEST(JsonTest, aTextThatIsNotUtf8GetsAnotherName)
{
    Json::Value object(Json::objectValue);
    JsonText::set(object, "value", "\xff");
    EXPECT_EQ(JsonText::write(object, Settings::Json::Short), R"({"valueBase64":"/w=="})");
    EXPECT_EQ(JsonText::get(object, "value"), "\xff");
    EXPECT_EQ(JsonText::get(object, "other"), std::nullopt);
}
