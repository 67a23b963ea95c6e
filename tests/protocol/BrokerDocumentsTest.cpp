// Documents as the broker reads and writes them.

#include "protocol/BrokerDocuments.h"

#include <gtest/gtest.h>

#include "protocol/ClientDocuments.h"
#include "tests/protocol/Written.h"

using namespace BrokerProtocol;

namespace
{

using TextViews = std::vector<std::string_view>;

const std::string deepNesting(100000, '[');

std::map<std::string, std::string> mapOf(const std::vector<Member>& members)
{
    std::map<std::string, std::string> map;
    for (const Member& member : members)
        map.emplace(member.name, member.value);
    return map;
}

std::string namesOf(const std::vector<Member>& members)
{
    std::string names;
    for (const Member& member : members)
        names += member.name;
    return names;
}

// {"<key>":["x","x",...]}
std::string listOf(const char* key, std::size_t count)
{
    std::string document = std::string("{\"") + key + "\":[";
    for (std::size_t index = 0; index < count; ++index)
        document += index == 0 ? R"("x")" : R"(,"x")";
    return document + "]}";
}

std::string membersOf(const char* key, std::size_t count)
{
    std::map<std::string, std::string> members;
    for (std::size_t index = 0; index < count; ++index)
        members[std::to_string(index)] = "";
    return writeMap(key, members);
}

class Reading : public testing::Test
{
protected:
    // Commands are reused, so each message follows another.
    bool readsPost(const std::string& text) { return command.readPost(message = text); }
    bool readsRequest(const std::string& text) { return command.readRequest(message = text); }

    std::string message; // holds the texts
    Command command;
};

using PostReading = Reading;
using RequestReading = Reading;

} // namespace

// ------------------------------------------------------------------------------------------------- reading

TEST_F(PostReading, everyPostOfTheClientIsRead)
{
    ASSERT_TRUE(readsPost(writeMap(Key::postStatus, {{"a", "1"}, {"b", "2"}})));
    EXPECT_EQ(command.operation, Operation::PostStatus);
    EXPECT_EQ(mapOf(command.members), (Members{{"a", "1"}, {"b", "2"}}));
    ASSERT_TRUE(readsPost(writeList(Key::resetStatus, {"b", "a"})));
    EXPECT_EQ(command.operation, Operation::ResetStatus);
    EXPECT_EQ(command.texts, (TextViews{"b", "a"}));
    ASSERT_TRUE(readsPost(writePostEvent("e", "v")));
    EXPECT_EQ(command.operation, Operation::PostEvent);
    EXPECT_EQ(mapOf(command.members), (Members{{"e", "v"}}));
    ASSERT_TRUE(readsPost(writeUpdateSystemTime(4294967295U)));
    EXPECT_EQ(command.operation, Operation::UpdateSystemTime);
    EXPECT_EQ(command.number, 4294967295U);
    ASSERT_TRUE(readsPost(writeSetCounterValue("c", 7)));
    EXPECT_EQ(command.operation, Operation::SetCounterValue);
    EXPECT_EQ(command.text, "c");
    EXPECT_EQ(command.number, 7U);
    const std::map<const char*, Operation> timerPosts{{Key::startTimer, Operation::StartTimer},
                                                      {Key::stopTimer, Operation::StopTimer},
                                                      {Key::resetTimer, Operation::ResetTimer},
                                                      {Key::restartTimer, Operation::RestartTimer}};
    for (const auto& [key, operation] : timerPosts)
    {
        ASSERT_TRUE(readsPost(writeText(key, "t")));
        EXPECT_EQ(command.operation, operation);
        EXPECT_EQ(command.text, "t");
    }
}

TEST_F(RequestReading, everyRequestOfTheClientIsRead)
{
    ASSERT_TRUE(readsRequest(writeGetClientInfo()));
    EXPECT_EQ(command.operation, Operation::GetClientInfo);
    ASSERT_TRUE(readsRequest(writeGetBrokerStatistics()));
    EXPECT_EQ(command.operation, Operation::GetBrokerStatistics);
    ASSERT_TRUE(readsRequest(writeText(Key::getBrokerClients, "null")));
    EXPECT_EQ(command.operation, Operation::GetBrokerClients);
    ASSERT_TRUE(readsRequest(writeText(Key::getTimers, "null")));
    EXPECT_EQ(command.operation, Operation::GetTimers);
    ASSERT_TRUE(readsRequest(writeText(Key::getCounters, "null")));
    EXPECT_EQ(command.operation, Operation::GetCounters);
    ASSERT_TRUE(readsRequest(writeList(Key::setTimer, {"t", "5", "0", "stopped"})));
    EXPECT_EQ(command.operation, Operation::SetTimer);
    ASSERT_TRUE(readsRequest(writeList(Key::getPolicyDecision, {"web", "post", "a"})));
    EXPECT_EQ(command.operation, Operation::GetPolicyDecision);
    for (const auto& [key, operation] : {std::pair{Key::forgetStatus, Operation::ForgetStatus},
                                         {Key::forgetTimers, Operation::ForgetTimers},
                                         {Key::forgetCounters, Operation::ForgetCounters}})
    {
        ASSERT_TRUE(readsRequest(writeList(key, {"b", "a"})));
        EXPECT_EQ(command.operation, operation);
        EXPECT_EQ(command.texts, (TextViews{"b", "a"}));
        EXPECT_FALSE(readsPost(writeList(key, {"a"})));
    }
    ASSERT_TRUE(readsRequest(writeList(Key::getClientInfoValues, {"a", "a"})));
    EXPECT_EQ(command.operation, Operation::GetClientInfoValues);
    EXPECT_EQ(command.texts, (TextViews{"a", "a"}));
    const std::map<const char*, Operation> requests{
        {Key::getClientInfoValue, Operation::GetClientInfoValue},
        {Key::getTimerElapsed, Operation::GetTimerElapsed},
        {Key::getTimerLastStarted, Operation::GetTimerLastStarted},
        {Key::getCounterValue, Operation::GetCounterValue},
        {Key::incrementCounter, Operation::IncrementCounter}};
    for (const auto& [key, operation] : requests)
    {
        ASSERT_TRUE(readsRequest(writeText(key, "x")));
        EXPECT_EQ(command.operation, operation);
        EXPECT_EQ(command.text, "x");
    }
}

TEST_F(Reading, aNotificationIsReadAsThePostOfWhichItTells)
{
    for (const std::string value : {"plain", "\xc3\xa4 \"\\"})
    {
        for (const auto& [key, operation] :
             {std::pair{Key::statusUpdate, Operation::PostStatus}, {Key::eventUpdate, Operation::PostEvent}})
        {
            std::string text;
            appendUpdate(text, key, {{"a", value}, {"b", ""}});
            ASSERT_TRUE(command.readUpdate(message = text));
            EXPECT_EQ(command.operation, operation);
            EXPECT_EQ(mapOf(command.members), (Members{{"a", value}, {"b", ""}}));
        }
    }
}

TEST_F(Reading, nothingElseIsANotification)
{
    for (const char* text : {"Sync", "", "{}", R"({"postStatus":{"a":"1"}})", R"({"statusUpdate":["a"]})",
                             R"({"statusUpdate":{"a":1}})", R"({"statusUpdate":{}},)"})
        EXPECT_FALSE(command.readUpdate(message = text)) << text;
}

TEST_F(Reading, everyOperationHasTheNameByWhichItIsRead)
{
    for (auto index = 0; index <= static_cast<int>(Operation::SetTimer); ++index)
    {
        const auto operation = static_cast<Operation>(index);
        const std::string name = nameOf(operation);
        const bool isRead = readsPost(writeText(name.c_str(), "x")) ||
                            readsPost(writeList(name.c_str(), {})) || readsPost(writeMap(name.c_str(), {})) ||
                            readsPost("{\"" + name + "\":1}") || readsPost("{\"" + name + "\":{\"c\":1}}") ||
                            readsRequest(writeText(name.c_str(), "x")) ||
                            readsRequest(writeList(name.c_str(), {}));
        ASSERT_TRUE(isRead) << name;
        EXPECT_EQ(command.operation, operation) << name;
    }
}

TEST_F(PostReading, escapesAreResolved)
{
    ASSERT_TRUE(readsPost(R"({"postStatus":{"\u00e4\"":"\n\\\u0000\ud83d\ude00\/"}})"));
    EXPECT_EQ(mapOf(command.members), (Members{{"\xc3\xa4\"", std::string("\n\\\0\xf0\x9f\x98\x80/", 8)}}));
    ASSERT_TRUE(readsPost(R"({"startTimer":"\t"})"));
    EXPECT_EQ(command.text, "\t");
    ASSERT_TRUE(readsPost(R"({"resetStatus":["\u0041","b"]})"));
    EXPECT_EQ(command.texts, (TextViews{"A", "b"}));
}

TEST_F(PostReading, whiteSpaceBetweenTheTokensIsNothing)
{
    ASSERT_TRUE(readsPost(" {\n\t\"postStatus\" : { \"a\" : \"1\" , \"b\":\"2\" }\r\n} "));
    EXPECT_EQ(mapOf(command.members), (Members{{"a", "1"}, {"b", "2"}}));
}

TEST_F(PostReading, membersAreInTheOrderOfTheirNamesAndTheLastOfOneNameCounts)
{
    ASSERT_TRUE(readsPost(R"({"postStatus":{"b":"1","a":"2","c":"3","b":"4"}})"));
    EXPECT_EQ(namesOf(command.members), "abc");
    EXPECT_EQ(mapOf(command.members), (Members{{"a", "2"}, {"b", "4"}, {"c", "3"}}));
}

TEST_F(Reading, nothingIsLeftOfTheMessageBefore)
{
    ASSERT_TRUE(readsPost(R"({"postStatus":{"b":"1","a":"\u0041"}})"));
    ASSERT_TRUE(readsPost(R"({"setCounterValue":{"c":7}})"));
    EXPECT_TRUE(command.members.empty());
    ASSERT_TRUE(readsPost(R"({"resetStatus":["a"]})"));
    EXPECT_EQ(command.text, "");
    EXPECT_EQ(command.number, 0U);
    ASSERT_TRUE(readsRequest(R"({"getCounterValue":"c"})"));
    EXPECT_TRUE(command.texts.empty());
}

TEST_F(PostReading, whatTheClientNeverWritesIsRefused)
{
    for (const std::string& text : {std::string(),
                                    std::string("{"),
                                    std::string("{}"),
                                    std::string("[]"),
                                    std::string("5"),
                                    std::string("null"),
                                    std::string(R"("postStatus")"),
                                    deepNesting,
                                    R"({"postStatus":)" + deepNesting,
                                    R"({"resetStatus":)" + deepNesting,
                                    std::string(R"({"unknown":"x"})"),
                                    std::string(R"({"getClientInfo":"null"})"),
                                    std::string(R"({"postStatus":{"a":"1"},"startTimer":"t"})"),
                                    std::string(R"({"postStatus":"a"})"),
                                    std::string(R"({"postStatus":{"a":1}})"),
                                    std::string(R"({"postStatus":{"a":null}})"),
                                    std::string(R"({"postStatus":{"a":true}})"),
                                    std::string(R"({"postStatus":{"a":{"b":"c"}}})"),
                                    std::string(R"({"resetStatus":{"a":"1"}})"),
                                    std::string(R"({"resetStatus":[["a"]]})"),
                                    std::string(R"({"resetStatus":[1,1,1]})"),
                                    std::string(R"({"updateSystemTime":-1})"),
                                    std::string(R"({"updateSystemTime":4294967296})"),
                                    std::string(R"({"updateSystemTime":99999999999999999999})"),
                                    std::string(R"({"updateSystemTime":5.0})"),
                                    std::string(R"({"updateSystemTime":5e3})"),
                                    std::string(R"({"updateSystemTime":"5"})"),
                                    std::string(R"({"updateSystemTime":[5]})"),
                                    std::string(R"({"setCounterValue":{}})"),
                                    std::string(R"({"setCounterValue":{"a":1,"b":2}})"),
                                    std::string(R"({"setCounterValue":{"a":"1"}})"),
                                    std::string(R"({"setCounterValue":{"a":{"b":1}}})"),
                                    std::string(R"({"setCounterValue":5})"),
                                    std::string(R"({"startTimer":["t"]})"),
                                    std::string(R"({"startTimer":{"t":"1"}})"),
                                    std::string(R"({"postStatus":{"a":"trunc)"),
                                    std::string(R"({"postStatus":{"a":"1"})")})
        EXPECT_FALSE(readsPost(text)) << text.substr(0, 60);
}

TEST_F(RequestReading, whatTheClientNeverWritesIsRefused)
{
    for (const std::string& text :
         {std::string(), std::string("Sync "), std::string("{}"), deepNesting,
          std::string(R"({"postStatus":{"a":"1"}})"), std::string(R"({"getClientInfo":null})"),
          std::string(R"({"getClientInfoValue":5})"), std::string(R"({"getClientInfoValues":"a"})"),
          std::string(R"({"getClientInfoValues":[1]})"),
          std::string(R"({"getClientInfo":"null","getCounterValue":"c"})")})
        EXPECT_FALSE(readsRequest(text)) << text.substr(0, 60);
}

TEST_F(PostReading, textBehindTheDocumentIsRefused)
{
    EXPECT_FALSE(readsPost(R"({"startTimer":"t"} more)"));
    EXPECT_FALSE(readsPost(R"({"startTimer":"t"}})"));
    EXPECT_FALSE(readsPost(R"({"postStatus":{"a":"1"}}{"postStatus":{"a":"2"}})"));
    EXPECT_FALSE(readsPost(R"( {"startTimer":"t"} more)"));
    EXPECT_FALSE(readsPost(std::string(R"({"startTimer":"t"})") + '\0'));
}

TEST_F(PostReading, commentsAreRefused)
{
    EXPECT_FALSE(readsPost(R"(/* */{"startTimer":"t"})"));
    EXPECT_FALSE(readsPost("{\"startTimer\":\"t\"}// comment\n"));
    EXPECT_FALSE(readsPost(R"({"startTimer":/* */"t"})"));
}

TEST_F(PostReading, bytesThatAreNotUtf8AreRefused)
{
    const std::vector<std::string> wrong{
        "\xff", "\xc3", "\x80", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xf0\x9f\x98"};
    for (const std::string& bytes : wrong)
    {
        EXPECT_FALSE(readsPost("{\"postStatus\":{\"" + bytes + "\":\"v\"}}"));
        EXPECT_FALSE(readsPost("{\"postStatus\":{\"k\":\"" + bytes + "\"}}"));
        EXPECT_FALSE(readsPost("{\"startTimer\":\"a" + bytes + "b\"}"));
        EXPECT_FALSE(readsRequest("{\"getClientInfoValue\":\"" + bytes + "\"}"));
    }
    EXPECT_TRUE(readsPost("{\"startTimer\":\"\xf0\x9f\x98\x80\"}"));
}

TEST_F(PostReading, ofTooManyMembersOrElementsIsRefused)
{
    EXPECT_TRUE(readsPost(listOf(Key::resetStatus, mostMembers)));
    EXPECT_EQ(command.texts.size(), mostMembers);
    EXPECT_FALSE(readsPost(listOf(Key::resetStatus, mostMembers + 1)));
    EXPECT_FALSE(readsPost(" " + listOf(Key::resetStatus, mostMembers + 1))) << "by the parser";
    EXPECT_TRUE(readsPost(membersOf(Key::postStatus, mostMembers)));
    EXPECT_FALSE(readsPost(membersOf(Key::postStatus, mostMembers + 1)));
    EXPECT_FALSE(readsPost(" " + membersOf(Key::postStatus, mostMembers + 1))) << "by the parser";
}

// ------------------------------------------------------------------------------------------------- writing

TEST(BrokersWriting, isCompact)
{
    EXPECT_EQ(writtenObject({}), "{}");
    EXPECT_EQ(writtenObject({{"b", "2"}, {"a", "1"}}), R"({"a":"1","b":"2"})");
    EXPECT_EQ(written(appendStatusValueReply, "v"), R"({"statusValue":"v"})");
    EXPECT_EQ(written(appendTimerReply, 18446744073709551615U), "18446744073709551615");
    EXPECT_EQ(written(appendUpdate, Key::statusUpdate, membersIn({{"k", "v"}, {"l", ""}})),
              R"({"statusUpdate":{"k":"v","l":""}})");
    EXPECT_EQ(written(appendUpdate, Key::eventUpdate, membersIn({{"e", "v"}})),
              R"({"eventUpdate":{"e":"v"}})");
    EXPECT_EQ(written(appendList, Key::forgotten, TextViews{"b", "a\n"}), R"({"forgotten":["b","a\n"]})");
    EXPECT_EQ(written(appendList, Key::forgotten, TextViews{}), R"({"forgotten":[]})");
    EXPECT_EQ(written(appendNumbers, std::map<std::string, uint64_t>{{"a.b", 5}, {"c", UINT64_MAX}}),
              R"({"a.b":5,"c":18446744073709551615})");
}

// On 32 bits atoi() stops at 2^31 - 1. It reads the signed text of the same bits correctly everywhere.
TEST(BrokersWriting, aCounterAboveTheSignedNumbersIsTheNegativeNumberOfTheSameBits)
{
    EXPECT_EQ(written(appendCounterReply, 0U), "0");
    EXPECT_EQ(written(appendCounterReply, 2147483647U), "2147483647");
    EXPECT_EQ(written(appendCounterReply, 2147483648U), "-2147483648");
    EXPECT_EQ(written(appendCounterReply, 4294967295U), "-1");
}

TEST(BrokersWriting, appendsToWhatIsThere)
{
    std::string text = "before";
    appendStatusValueReply(text, "v");
    EXPECT_EQ(text, R"(before{"statusValue":"v"})");
}

// ------------------------------------------------------------------------- what the client makes of all that

TEST(BrokersWriting, everyCounterIsReadByClientsAsItWas)
{
    for (const uint32_t value : {0U, 1U, 2147483647U, 2147483648U, 4000000000U, 4294967295U})
        EXPECT_EQ(readCounterReply(written(appendCounterReply, value)), value);
}

TEST(BrokersWriting, everyTextIsReadByClientsAsItWas)
{
    const Members values{{std::string("nul\0key", 7), std::string("nul\0value", 9)},
                         {"control\n\t\x01\x7f", "\"\\/"},
                         {"\xc3\xa4\xe2\x82\xac", "\xf0\x9f\x98\x80"}};
    EXPECT_EQ(readMapReply(writtenObject(values)), values);
    EXPECT_EQ(readNotification(written(appendUpdate, Key::statusUpdate, membersIn(values))).members, values);
    for (const auto& [key, value] : values)
        EXPECT_EQ(readStatusValueReply(written(appendStatusValueReply, value)), value);
}

TEST(BrokersWriting, textsBeyondAsciiAreEscapedInLowerCase)
{
    EXPECT_EQ(written(appendText, std::string("\0\x1f\x7f/", 4)), "\"\\u0000\\u001f\x7f/\"");
    EXPECT_EQ(written(appendText, "\b\f\n\r\t\"\\"), R"("\b\f\n\r\t\"\\")");
    EXPECT_EQ(written(appendText, "\xc2\x80\xef\xbf\xbf"), R"("\u0080\uffff")");
    EXPECT_EQ(written(appendText, "\xf0\x90\x80\x80\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf"),
              R"("\ud800\udc00\ud83d\ude00\udbff\udfff")");
}

TEST(BrokersWriting, bytesThatAreNotUtf8AreReadByClientsAsReplacementCharacters)
{
    EXPECT_EQ(readStatusValueReply(written(appendStatusValueReply, "\xff")), "\xef\xbf\xbd");
}

TEST(ClientsWriting, tellsAllThatIsKnownOfAClient)
{
    BrokerProtocol::Client client;
    client.user = "net";
    client.uid = 7;
    client.service = "net.service";
    client.pid = 42;
    client.program = "n\"d";
    client.isShared = true;
    client.since = 1;
    client.connections = 2;
    client.posts = 3;
    client.requests = 4;
    client.queued = 5;
    client.refusals = 6;
    client.received = 7;
    client.sent = 8;
    std::string text;
    BrokerProtocol::appendClients(text, {client}, true);
    EXPECT_EQ(text, R"({"clients":[{"user":"net","uid":7,"service":"net.service","pid":42,"program":"n\"d",)"
                    R"("shared":1,"since":1,"connections":2,"posts":3,"requests":4,"queued":5,"refusals":6,)"
                    R"("received":7,"sent":8}],"complete":1})");
}

TEST(ClientsWriting, leavesOutWhatIsUnknown)
{
    std::string text;
    BrokerProtocol::appendClients(text, {BrokerProtocol::Client(), BrokerProtocol::Client()}, false);
    const std::string unknown =
        R"({"since":0,"connections":0,"posts":0,"requests":0,"queued":0,"refusals":0,)"
        R"("received":0,"sent":0})";
    EXPECT_EQ(text, R"({"clients":[)" + unknown + ',' + unknown + R"(],"complete":0})");
}
