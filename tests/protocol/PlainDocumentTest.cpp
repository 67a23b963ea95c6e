#include <gtest/gtest.h>
#include <json/json.h>
#include <random>

#include "protocol/PlainDocument.h"

#pragma GCC diagnostic ignored                                                                               \
    "-Wdeprecated-declarations" // Json::FastWriter and Json::Reader: the wire format is theirs

using PlainDocument::Members;

namespace
{

std::string writtenByJsonCpp(const Json::Value& root)
{
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    return writer.write(root);
}

Json::Value objectOf(const Members& members)
{
    Json::Value object(Json::objectValue);
    for (const auto& [name, value] : members)
        object[name] = value;
    return object;
}

Members membersOf(const Json::Value& object)
{
    Members members;
    for (const std::string& name : object.getMemberNames())
        members[name] = object[name].asString();
    return members;
}

std::optional<Json::Value> readByJsonCpp(const std::string& document)
{
    Json::Value root;
    if (!Json::Reader().parse(document, root, false) || !root.isObject())
        return std::nullopt;
    return root;
}

// Generates the same documents in every run.
class Generator
{
public:
    std::size_t upTo(std::size_t most)
    {
        return std::uniform_int_distribution<std::size_t>(0, most)(mNumbers);
    }

    std::string text(std::string_view characters)
    {
        std::string text;
        for (std::size_t length = upTo(12); length > 0; --length)
            text += characters[upTo(characters.size() - 1)];
        return text;
    }

    Members members(std::string_view characters)
    {
        Members members;
        for (std::size_t count = upTo(4); count > 0; --count)
            members[text(characters)] = text(characters);
        return members;
    }

private:
    std::mt19937 mNumbers{1};
};

constexpr std::string_view plainCharacters = " !#$%&'()*+,-./09:;<=>?@AZ[]^_`az{|}~";

} // namespace

TEST(PlainDocument, isWrittenAsJsonCppWritesIt)
{
    Generator generator;
    for (int round = 0; round < 2000; ++round)
    {
        const Members members = generator.members(plainCharacters);
        const std::string text = generator.text(plainCharacters);
        Json::Value withMembers(Json::objectValue);
        withMembers["postStatus"] = objectOf(members);
        Json::Value withText(Json::objectValue);
        withText["startTimer"] = text;
        ASSERT_EQ(PlainDocument::write("postStatus", members), writtenByJsonCpp(withMembers));
        ASSERT_EQ(PlainDocument::write("startTimer", text), writtenByJsonCpp(withText));
        ASSERT_EQ(PlainDocument::write(members), writtenByJsonCpp(objectOf(members)));
    }
}

TEST(PlainDocument, isReadAsItWasWritten)
{
    Generator generator;
    for (int round = 0; round < 2000; ++round)
    {
        const Members members = generator.members(plainCharacters);
        const std::string text = generator.text(plainCharacters);
        const std::string withMembers = *PlainDocument::write("statusUpdate", members);
        const std::string withText = *PlainDocument::write("statusValue", text);
        const std::optional<PlainDocument::Content> first = PlainDocument::read(withMembers);
        const std::optional<PlainDocument::Content> second = PlainDocument::read(withText);
        ASSERT_TRUE(first && second) << withMembers << withText;
        EXPECT_EQ(first->key, "statusUpdate");
        EXPECT_EQ(first->text, std::nullopt);
        EXPECT_EQ(first->members, members);
        EXPECT_EQ(second->key, "statusValue");
        EXPECT_EQ(second->text, text);
        EXPECT_EQ(PlainDocument::readMembers(*PlainDocument::write(members)), members);
    }
}

TEST(PlainDocument, everyByteThatJsonCppWritesOtherwiseIsLeftToIt)
{
    for (int byte = 0; byte < 256; ++byte)
    {
        const std::string text = std::string("a") + static_cast<char>(byte) + "b";
        const std::string document = R"({"k":")" + text + "\"}";
        const bool asItIs = writtenByJsonCpp(objectOf({{"k", text}})) == document;
        const bool plain = asItIs && byte != 0x7f; // DEL needs no escape, but is not printable
        EXPECT_EQ(PlainDocument::write("k", text).has_value(), plain) << byte;
        EXPECT_EQ(PlainDocument::write("k", Members{{text, ""}}).has_value(), plain) << byte;
        EXPECT_EQ(PlainDocument::write(Members{{"", text}}).has_value(), plain) << byte;
        EXPECT_EQ(PlainDocument::read(document).has_value(), plain) << byte;
        EXPECT_EQ(PlainDocument::readMembers(document).has_value(), plain) << byte;
    }
}

// Damaged documents are refused, or read as JsonCpp reads them.
TEST(PlainDocument, damagedIsNeverReadOtherwiseThanByJsonCpp)
{
    Generator generator;
    constexpr std::string_view damage = "\"{}:,\\ ab\t0[";
    for (int round = 0; round < 20000; ++round)
    {
        Members written = generator.members("abcde");
        written["a"];
        std::string document = *PlainDocument::write("key", written);
        document[generator.upTo(document.size() - 1)] = damage[generator.upTo(damage.size() - 1)];
        const std::optional<Json::Value> root = readByJsonCpp(document);
        if (const std::optional<Members> members = PlainDocument::readMembers(document))
        {
            ASSERT_TRUE(root) << document;
            ASSERT_EQ(membersOf(*root), *members) << document;
        }
        if (const std::optional<PlainDocument::Content> content = PlainDocument::read(document))
        {
            ASSERT_TRUE(root && root->size() == 1) << document;
            ASSERT_EQ(root->begin().name(), content->key) << document;
            ASSERT_EQ(content->text ? root->begin()->asString() : "", content->text.value_or("")) << document;
            ASSERT_EQ(content->text ? Members() : membersOf(*root->begin()), content->members) << document;
        }
    }
}

TEST(PlainDocument, whatIsNotOfThisFormIsLeftToJsonCpp)
{
    for (const std::string document : {"",
                                       "{",
                                       "{}",
                                       R"({"k"})",
                                       R"({"k":})",
                                       R"({"k":1})",
                                       R"({"k":null})",
                                       R"({"k":["a"]})",
                                       R"({"k":{"a":1}})",
                                       R"({"k":{"a":"1",}})",
                                       R"({"k":{"a":"1"})",
                                       R"({"k":{"a":"1"}} )",
                                       R"( {"k":"a"})",
                                       R"({"k": "a"})",
                                       R"({"k":"a"}x)",
                                       R"({"k":"a","l":"b"})",
                                       R"({"k":{"b":"1","a":"2"}})",
                                       R"({"k":{"a":"1","a":"2"}})",
                                       R"({"k":{"a":{"b":"c"}}})",
                                       "{/**/\"k\":\"a\"}"})
        EXPECT_FALSE(PlainDocument::read(document)) << document;
    for (const std::string document :
         {"", "{", R"({"a":"1",})", R"({"b":"1","a":"2"})", R"({"a":"1"} )", R"({"a":1})"})
        EXPECT_FALSE(PlainDocument::readMembers(document)) << document;
}

// The implementation looks at eight bytes at a time.
TEST(PlainDocument, isNoneWithAnOddByteAtAnyPlace)
{
    for (int value = 0; value < 256; ++value)
    {
        const char byte = static_cast<char>(value);
        const bool isPlain = byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\';
        for (std::size_t place = 0; place < 20; ++place)
        {
            std::string text(20, place % 2 == 0 ? ' ' : '~');
            text[place] = byte;
            const std::string document = "{\"key\":\"" + text + "\"}";
            EXPECT_EQ(PlainDocument::write("key", text).has_value(), isPlain) << value << " at " << place;
            EXPECT_EQ(PlainDocument::read(document).has_value(), isPlain) << value << " at " << place;
        }
    }
}
