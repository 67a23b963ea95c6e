// Earlier brokers read and wrote documents with JsonCpp, and clients still do. A document that both accept
// must have the same meaning for both, and both must write the same bytes.

#include <algorithm>
#include <gtest/gtest.h>
#include <json/json.h>
#include <optional>
#include <random>

#include "protocol/BrokerDocuments.h"
#include "tests/protocol/JsonCppReading.h"
#include "tests/protocol/Written.h"

#pragma GCC diagnostic ignored                                                                               \
    "-Wdeprecated-declarations" // Json::FastWriter and Json::Reader: the wire format is theirs

using namespace BrokerProtocol;

namespace
{

using Map = std::map<std::string, std::string>;

std::optional<Meaning> readByBroker(const std::string& document, bool (Command::*read)(std::string_view))
{
    static Command command; // reused, as in the broker
    if (!(command.*read)(document))
        return std::nullopt;
    const auto isOutOfOrder = [](const Member& one, const Member& other) { return one.name >= other.name; };
    EXPECT_EQ(std::adjacent_find(command.members.begin(), command.members.end(), isOutOfOrder),
              command.members.end())
        << document;
    return Meaning::of(command);
}

// --------------------------------------------------------------------------- the same documents in every run

class Generator
{
public:
    std::size_t upTo(std::size_t most)
    {
        return std::uniform_int_distribution<std::size_t>(0, most)(mNumbers);
    }

    template <class Elements>
    const auto& oneOf(const Elements& elements)
    {
        return elements[upTo(elements.size() - 1)];
    }

    // Valid UTF-8, with every character that must be escaped.
    std::string text()
    {
        static const std::vector<std::string> pieces{"a",
                                                     "b",
                                                     " ",
                                                     "key",
                                                     "u007f",
                                                     "/",
                                                     "~",
                                                     "\"",
                                                     "\\",
                                                     "\n",
                                                     "\t",
                                                     "\b",
                                                     "\f",
                                                     "\r",
                                                     "\x7f",
                                                     "\x1f",
                                                     "\x01",
                                                     std::string(1, '\0'),
                                                     "\xc2\x80",
                                                     "\xc3\xa4",
                                                     "\xdf\xbf",
                                                     "\xe0\xa0\x80",
                                                     "\xe2\x82\xac",
                                                     "\xe2\x80\xa8",
                                                     "\xed\x9f\xbf",
                                                     "\xee\x80\x80",
                                                     "\xef\xbb\xbf",
                                                     "\xef\xbf\xbd",
                                                     "\xef\xbf\xbf",
                                                     "\xf0\x90\x80\x80",
                                                     "\xf0\x9f\x98\x80",
                                                     "\xf4\x8f\xbf\xbf"};
        std::string text;
        for (std::size_t count = upTo(6); count > 0; --count)
            text += oneOf(pieces);
        return text;
    }

    // A spelling that JSON allows: with escapes or without.
    std::string spelt()
    {
        static const std::vector<std::string> pieces{"a",
                                                     "b",
                                                     "key",
                                                     "\xc3\xa4",
                                                     "\xe2\x82\xac",
                                                     "\xf0\x9f\x98\x80",
                                                     R"(\n)",
                                                     R"(\")",
                                                     R"(\\)",
                                                     R"(\/)",
                                                     R"(\b)",
                                                     R"(\f)",
                                                     R"(\r)",
                                                     R"(\t)",
                                                     R"(\u0000)",
                                                     R"(\u00e4)",
                                                     R"(\u00E4)",
                                                     R"(\u0061)",
                                                     R"(\ud83d\ude00)",
                                                     R"(\uffff)",
                                                     " ",
                                                     "\x7f"};
        std::string text = "\"";
        for (std::size_t count = upTo(4); count > 0; --count)
            text += oneOf(pieces);
        return text + '"';
    }

    std::string space()
    {
        static const std::vector<std::string> spaces{"", "", "", "", " ", "\n", "\t", "\r", "  "};
        return oneOf(spaces);
    }

    std::string number()
    {
        static const std::vector<std::string> numbers{
            "0",  "1",   "7",   "2147483648", "4294967295",          "4294967296",
            "-1", "1.0", "1e3", "00",         "18446744073709551616"};
        return oneOf(numbers);
    }

    std::string value()
    {
        switch (upTo(9))
        {
        case 0:
            return number();
        case 1:
            return oneOf(std::vector<std::string>{"null", "true", "false", "{}", "[]"});
        default:
            return spelt();
        }
    }

    std::string object()
    {
        std::string text = "{" + space();
        for (std::size_t count = upTo(3); count > 0; --count)
        {
            text += spelt() + space() + ':' + space() + value() + space();
            text += count > 1 ? "," + space() : "";
        }
        return text + "}";
    }

    std::string array()
    {
        std::string text = "[" + space();
        for (std::size_t count = upTo(3); count > 0; --count)
        {
            text += value() + space();
            text += count > 1 ? "," + space() : "";
        }
        return text + "]";
    }

    std::string payload()
    {
        switch (upTo(4))
        {
        case 0:
            return object();
        case 1:
            return array();
        case 2:
            return number();
        case 3:
            return "{" + spelt() + ":" + number() + "}";
        default:
            return spelt();
        }
    }

    std::string document()
    {
        std::vector<std::string> names{"unknown"};
        for (const auto& [name, read] : JsonCppReading::posts)
            names.push_back(name);
        for (const auto& [name, read] : JsonCppReading::requests)
            names.push_back(name);
        std::string text = space() + "{" + space() + '"' + oneOf(names) + '"' + space() + ":" + space() +
                           payload() + space() + "}" + space();
        if (upTo(3) == 0)
            damage(text);
        return text;
    }

    Map members()
    {
        Map members;
        for (std::size_t count = upTo(4); count > 0; --count)
            members[text()] = text();
        return members;
    }

private:
    void damage(std::string& text)
    {
        static constexpr std::string_view bytes = "\"{}[]:,\\ ab\t0/\n\xc3\x80";
        text[upTo(text.size() - 1)] = oneOf(bytes);
    }

    std::mt19937 mNumbers{1};
};

std::string writtenByJsonCpp(const Json::Value& root)
{
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    return writer.write(root);
}

Json::Value objectOf(const Map& members)
{
    Json::Value object(Json::objectValue);
    for (const auto& [name, value] : members)
        object[name] = value;
    return object;
}

} // namespace

TEST(JsonCppAgreement, whatBothAcceptMeansTheSame)
{
    Generator generator;
    int both = 0;
    for (int round = 0; round < 100000; ++round)
    {
        const std::string document = generator.document();
        for (const bool isPost : {true, false})
        {
            const auto byJsonCpp =
                JsonCppReading::read(document, isPost ? JsonCppReading::posts : JsonCppReading::requests);
            const auto byBroker = readByBroker(document, isPost ? &Command::readPost : &Command::readRequest);
            if (!byJsonCpp || !byBroker)
                continue;
            ASSERT_TRUE(*byJsonCpp == *byBroker) << document;
            ++both;
        }
    }
    EXPECT_GT(both, 10000);
}

TEST(JsonCppAgreement, whatJsonCppWritesTheBrokerReads)
{
    Generator generator;
    for (int round = 0; round < 20000; ++round)
    {
        const Map members = generator.members();
        Json::Value root(Json::objectValue);
        root["postStatus"] = objectOf(members);
        const std::string document = writtenByJsonCpp(root);
        const auto read = readByBroker(document, &Command::readPost);
        ASSERT_TRUE(read) << document;
        ASSERT_EQ(read->members, members) << document;
    }
}

TEST(JsonCppAgreement, updatesAreWrittenAsJsonCppWritesThem)
{
    Generator generator;
    for (int round = 0; round < 20000; ++round)
    {
        const Map members = generator.members();
        Json::Value root(Json::objectValue);
        root[Key::statusUpdate] = objectOf(members);
        ASSERT_EQ(written(appendUpdate, Key::statusUpdate, membersIn(members)), writtenByJsonCpp(root));
    }
}

TEST(JsonCppAgreement, everyCharacterIsWrittenAsJsonCppWritesIt)
{
    const auto encoded = [](unsigned point)
    {
        std::string bytes;
        const auto add = [&bytes](unsigned byte) { bytes += static_cast<char>(byte); };
        if (point < 0x80)
            add(point);
        else if (point < 0x800)
            add(0xc0 | point >> 6);
        else if (point < 0x10000)
            add(0xe0 | point >> 12);
        else
            add(0xf0 | point >> 18);
        for (int shift = point < 0x80 ? 0 : point < 0x800 ? 6 : point < 0x10000 ? 12 : 18; shift > 0;)
            add(0x80 | (point >> (shift -= 6) & 0x3f));
        return bytes;
    };
    for (unsigned point = 0; point < 0x110000; point += point < 0x3000 ? 1 : 7)
    {
        if (point >= 0xd800 && point < 0xe000)
            continue; // not characters
        const std::string text = encoded(point);
        ASSERT_EQ(written(appendText, text), writtenByJsonCpp(Json::Value(text))) << point;
    }
}
