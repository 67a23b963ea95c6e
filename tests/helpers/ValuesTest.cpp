// Values as numbers, and posts that would be lost.

#include <gtest/gtest.h>
#include <limits>
#include <locale>
#include <string>
#include <vector>

#include "statusmanager/helpers/FakeStatusManager.h"
#include "statusmanager/helpers/Values.h"
#include "tests/support/LogCapture.h"

namespace
{

using namespace std::chrono_literals;
using status::fromText;
using status::toText;

template <class T>
class NumberText : public testing::Test
{
};

using Numbers = testing::Types<signed char, unsigned char, short, unsigned short, int, unsigned, long,
                               unsigned long, long long, unsigned long long, float, double, long double>;
TYPED_TEST_SUITE(NumberText, Numbers);

class Values : public testing::Test
{
protected:
    // A value for which the message of its post, under the key "k", has this many bytes.
    static std::string valueForMessageOf(std::size_t bytes)
    {
        return std::string(bytes - std::string(R"({"postStatus":{"k":""}})").size(), 'x');
    }

    status::FakeStatusManager fake; // the process's manager
    LogCapture log;
};

// Like a locale set by the program, such as "de_DE".
class CommaForPoint : public std::numpunct<char>
{
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

} // namespace

// The smallest number before the fraction loses digits is left out: where processors notice too small results
// before they round, as ARM does, the C++ library takes the text of the smallest long double for too small.
TYPED_TEST(NumberText, isReadAsWhatWasWritten)
{
    using Limits = std::numeric_limits<TypeParam>;
    constexpr TypeParam smallest = std::is_same_v<TypeParam, long double> ? Limits::epsilon() : Limits::min();
    for (const TypeParam number : {Limits::lowest(), TypeParam(0), TypeParam(7), Limits::max(), smallest,
                                   Limits::epsilon(), static_cast<TypeParam>(0.1)})
        EXPECT_EQ(fromText<TypeParam>(toText(number)), number) << toText(number);
}

TEST(NumberTexts, areShort)
{
    EXPECT_EQ(toText(0), "0");
    EXPECT_EQ(toText(-42), "-42");
    EXPECT_EQ(toText(0.1), "0.1");
    EXPECT_EQ(toText(21.5F), "21.5");
    EXPECT_EQ(toText(true), "true");
    EXPECT_EQ(toText(false), "false");
}

TEST(NumberTexts, areTheSameInEveryLocale)
{
    const std::locale before = std::locale::global(std::locale(std::locale(), new CommaForPoint));
    EXPECT_EQ(toText(1234567.5), "1234567.5");
    EXPECT_EQ(toText(1234567), "1234567");
    EXPECT_EQ(fromText<double>("1234567.5"), 1234567.5);
    std::locale::global(before);
}

TEST(NumberTexts, thatAreNoneAreRefused)
{
    for (const char* text : {"", " 1", "1 ", "+1", "0x10", "one", "1.5", "1e3", "--1"})
        EXPECT_EQ(fromText<int>(text), std::nullopt) << text;
    for (const char* text : {"", " 1", "1 ", "1,5", "1.5C", "one"})
        EXPECT_EQ(fromText<double>(text), std::nullopt) << text;
    for (const char* text : {"", "TRUE", "yes", "2", "true "})
        EXPECT_EQ(fromText<bool>(text), std::nullopt) << text;
    EXPECT_EQ(fromText<int>(std::string("1\0", 2)), std::nullopt);
}

TEST(NumberTexts, thatDoNotFitTheTypeAreRefused)
{
    EXPECT_EQ(fromText<uint8_t>("256"), std::nullopt);
    EXPECT_EQ(fromText<int8_t>("-129"), std::nullopt);
    EXPECT_EQ(fromText<unsigned>("-1"), std::nullopt);
    EXPECT_EQ(fromText<double>("1e999"), std::nullopt);
}

TEST(NumberTexts, ofABoolAreWordsOrDigits)
{
    EXPECT_EQ(fromText<bool>("true"), true);
    EXPECT_EQ(fromText<bool>("1"), true);
    EXPECT_EQ(fromText<bool>("false"), false);
    EXPECT_EQ(fromText<bool>("0"), false);
}

TEST_F(Values, thatAreUnknownAreToldFromResetOnes)
{
    fake.change({{"known", "1"}, {"reset", ""}});
    EXPECT_EQ(status::find("known"), "1");
    EXPECT_EQ(status::find("reset"), "");
    EXPECT_EQ(status::find("unknown"), std::nullopt);
}

TEST_F(Values, areFoundAsNumbers)
{
    fake.change({{"rpm", "1200"}, {"celsius", "21.5"}, {"on", "true"}, {"text", "fast"}});
    EXPECT_EQ(status::get<int>("rpm"), 1200);
    EXPECT_EQ(status::get<double>("celsius"), 21.5);
    EXPECT_EQ(status::get<bool>("on"), true);
    EXPECT_EQ(status::get<int>("text"), std::nullopt);
    EXPECT_EQ(status::get<int>("unknown").value_or(-1), -1);
}

TEST_F(Values, arePostedAsTextOrNumber)
{
    EXPECT_TRUE(status::post("text", "open"));
    EXPECT_TRUE(status::post("string", std::string("shut")));
    EXPECT_TRUE(status::post("zero", 0)); // zero as a number, not as a null pointer
    EXPECT_TRUE(status::post("one half", 0.5));
    EXPECT_TRUE(status::post("yes", true));
    EXPECT_TRUE(status::post({{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(fake.posts(), (std::vector<StatusMap>{{{"text", "open"}},
                                                    {{"string", "shut"}},
                                                    {{"zero", "0"}},
                                                    {{"one half", "0.5"}},
                                                    {{"yes", "true"}},
                                                    {{"a", "1"}, {"b", "2"}}}));
}

TEST_F(Values, goToTheManagerThatIsGiven)
{
    StatusManager local;
    EXPECT_TRUE(status::post("n", 7, local));
    EXPECT_EQ(status::get<int>("n", local), 7);
    EXPECT_EQ(status::find("n"), std::nullopt);
}

TEST_F(Values, thatAreNullPointersAreRefused)
{
    const char* const none = nullptr;
    EXPECT_FALSE(status::post("door", none));
    EXPECT_TRUE(fake.posts().empty());
    EXPECT_TRUE(log.has(2, "Not posted: the value of [door] is a null pointer"));
}

TEST_F(Values, whoseMessageWouldLoseItsEndAreRefused)
{
    for (const std::size_t bytes : {512U, 1024U, 5120U})
    {
        EXPECT_FALSE(status::post("k", valueForMessageOf(bytes)));
        EXPECT_FALSE(status::post({{"k", valueForMessageOf(bytes)}}));
        EXPECT_TRUE(log.has(2, "Not posted: its message has " + std::to_string(bytes) +
                                   " bytes, a multiple of 512, and would lose its end"));
    }
    EXPECT_TRUE(fake.posts().empty());
}

TEST_F(Values, oneByteLongerOrShorterThanThatArePosted)
{
    for (const std::size_t bytes : {511U, 513U, 1023U, 1025U})
        EXPECT_TRUE(status::post("k", valueForMessageOf(bytes)));
    EXPECT_EQ(fake.posts().size(), 4U);
}

// The length of the message counts, in which such characters take six bytes each.
TEST_F(Values, areMeasuredAsTheirMessageWritesThem)
{
    std::string value = valueForMessageOf(512);
    value.replace(0, 6, "\x01");
    EXPECT_FALSE(status::post("k", value));
    EXPECT_TRUE(status::post("k", value + "x"));
}

TEST_F(Values, inSeveralOfWhichTheMessageWouldLoseItsEndAreAllRefused)
{
    StatusMap values{{"a", "1"}, {"k", ""}};
    values["k"] = std::string(512 - std::string(R"({"postStatus":{"a":"1","k":""}})").size(), 'x');
    EXPECT_FALSE(status::post(values));
    values["k"] += 'x';
    EXPECT_TRUE(status::post(values));
    EXPECT_EQ(fake.posts(), std::vector<StatusMap>{values});
}

TEST_F(Values, mayBeLeftOutOfEvents)
{
    EXPECT_TRUE(status::postEvent("bell"));
    EXPECT_TRUE(status::postEvent("bell", "rang", 250ms));
    const auto events = fake.events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].value, "");
    EXPECT_EQ(events[0].delayMs, 0U);
    EXPECT_EQ(events[1].value, "rang");
    EXPECT_EQ(events[1].delayMs, 250U);
}

TEST_F(Values, ofEventsWhoseMessageWouldLoseItsEndAreRefused)
{
    const std::string value(512 - std::string(R"({"postEvent":{"bell":""}})").size(), 'x');
    EXPECT_FALSE(status::postEvent("bell", value));
    EXPECT_TRUE(fake.events().empty());
    EXPECT_TRUE(status::postEvent("bell", value + 'x'));
}

TEST_F(Values, ofEventsAreDelayedNoLessThanNothingAndNoMoreThanCanBeCounted)
{
    EXPECT_TRUE(status::postEvent("bell", "", -1s));
    EXPECT_TRUE(status::postEvent("bell", "", std::chrono::hours(24 * 365)));
    const auto events = fake.events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].delayMs, 0U);
    EXPECT_EQ(events[1].delayMs, std::numeric_limits<uint32_t>::max());
}
