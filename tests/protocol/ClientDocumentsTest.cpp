// Documents as clients write and read them.

#include <gtest/gtest.h>

#include "protocol/ClientDocuments.h"

using namespace BrokerProtocol;

namespace
{

using Kind = Notification::Kind;

const std::string deepNesting(100000, '[');

} // namespace

// ------------------------------------------------------------------------------------------------- writing

TEST(Writing, controlWordsAreBareText)
{
    EXPECT_STREQ(syncWord, "Sync");
    EXPECT_STREQ(syncAckWord, "SyncAck");
}

TEST(Writing, reservedKeysExistAlthoughNoMessageUsesThem)
{
    EXPECT_STREQ(Key::counterName, "counterName");
    EXPECT_STREQ(Key::counterValue, "counterValue");
}

TEST(Writing, postStatusWritesItsMembersInByteOrder)
{
    EXPECT_EQ(writeMap(Key::postStatus, {{"b", "2"}, {"a", "1"}}), R"({"postStatus":{"a":"1","b":"2"}})");
    EXPECT_EQ(writeMap(Key::postStatus, {{"a", ""}, {"B", ""}, {"\xc3\xa4", ""}}),
              R"({"postStatus":{"B":"","a":"","\u00e4":""}})");
}

TEST(Writing, postStatusOfAnEmptyMapIsAnEmptyObject)
{
    EXPECT_EQ(writeMap(Key::postStatus, {}), R"({"postStatus":{}})");
}

TEST(Writing, resetStatusKeepsTheOrderAndDuplicatesOfTheList)
{
    EXPECT_EQ(writeList(Key::resetStatus, {"b", "a", "b"}), R"({"resetStatus":["b","a","b"]})");
}

TEST(Writing, resetStatusOfAnEmptyListIsAnEmptyArray)
{
    EXPECT_EQ(writeList(Key::resetStatus, {}), R"({"resetStatus":[]})");
}

TEST(Writing, postEventHoldsNameAndValueOnly)
{
    EXPECT_EQ(writePostEvent("door", "open"), R"({"postEvent":{"door":"open"}})");
}

TEST(Writing, timerPostsHoldTheName)
{
    EXPECT_EQ(writeText(Key::startTimer, "boot"), R"({"startTimer":"boot"})");
    EXPECT_EQ(writeText(Key::stopTimer, "boot"), R"({"stopTimer":"boot"})");
    EXPECT_EQ(writeText(Key::resetTimer, "boot"), R"({"resetTimer":"boot"})");
    EXPECT_EQ(writeText(Key::restartTimer, "boot"), R"({"restartTimer":"boot"})");
}

TEST(Writing, numbersAreBareUnsignedDigits)
{
    EXPECT_EQ(writeUpdateSystemTime(4294967295U), R"({"updateSystemTime":4294967295})");
    EXPECT_EQ(writeUpdateSystemTime(0), R"({"updateSystemTime":0})");
    EXPECT_EQ(writeSetCounterValue("c", 4294967295U), R"({"setCounterValue":{"c":4294967295}})");
}

TEST(Writing, getClientInfoHoldsTheStringNull)
{
    EXPECT_EQ(writeGetClientInfo(), R"({"getClientInfo":"null"})");
}

TEST(Writing, requestsHoldWhatTheyAskFor)
{
    EXPECT_EQ(writeText(Key::getClientInfoValue, "k"), R"({"getClientInfoValue":"k"})");
    EXPECT_EQ(writeList(Key::getClientInfoValues, {"b", "a"}), R"({"getClientInfoValues":["b","a"]})");
    EXPECT_EQ(writeText(Key::getTimerElapsed, "t"), R"({"getTimerElapsed":"t"})");
    EXPECT_EQ(writeText(Key::getTimerLastStarted, "t"), R"({"getTimerLastStarted":"t"})");
    EXPECT_EQ(writeText(Key::getCounterValue, "c"), R"({"getCounterValue":"c"})");
    EXPECT_EQ(writeText(Key::incrementCounter, "c"), R"({"incrementCounter":"c"})");
}

// ------------------------------------------------------------------------------------------------- replies

TEST(MapReply, everyMemberIsAnEntry)
{
    EXPECT_EQ(readMapReply(R"({"b":"2","a":"1"})"), (Members{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(readMapReply("{}"), Members());
}

TEST(MapReply, scalarsThatAreNoStringsAreReadAsText)
{
    EXPECT_EQ(readMapReply(R"({"a":1,"b":true,"c":null,"d":1.5})"),
              (Members{{"a", "1"}, {"b", "true"}, {"c", ""}, {"d", "1.5"}}));
}

TEST(MapReply, whatIsNoFlatObjectIsUnreadable)
{
    for (const std::string& text : {std::string(), std::string("{"), std::string("no"), std::string("[1]"),
                                    std::string("5"), std::string("\"x\""), std::string(R"({"a":{"b":"c"}})"),
                                    std::string(R"({"a":["b"]})"), deepNesting})
        EXPECT_FALSE(readMapReply(text)) << text.substr(0, 40);
}

TEST(MapReply, textBehindTheDocumentIsIgnored)
{
    EXPECT_EQ(readMapReply("{} trailing"), Members());
}

TEST(StatusValueReply, theMemberIsTheValue)
{
    EXPECT_EQ(readStatusValueReply(R"({"statusValue":"v"})"), "v");
    EXPECT_EQ(readStatusValueReply(R"({"statusValue":7})"), "7");
}

TEST(StatusValueReply, aMissingMemberIsTheEmptyValue)
{
    EXPECT_EQ(readStatusValueReply("{}"), "");
    EXPECT_EQ(readStatusValueReply(R"({"StatusValue":"v"})"), "");
}

TEST(StatusValueReply, whatIsNoObjectOrNestedIsUnreadable)
{
    for (const std::string& text :
         {std::string(), std::string("v"), std::string("[1]"), std::string("5"),
          std::string(R"({"statusValue":{}})"), std::string(R"({"statusValue":[]})"), deepNesting})
        EXPECT_FALSE(readStatusValueReply(text)) << text.substr(0, 40);
}

TEST(StatusValueReply, nullAndTheEmptyArrayHaveNoMemberAndSoTheEmptyValue)
{
    EXPECT_EQ(readStatusValueReply("null"), "");
    EXPECT_EQ(readStatusValueReply("[]"), "");
}

TEST(MapReply, nullAndTheEmptyArrayHaveNoMembers)
{
    EXPECT_EQ(readMapReply("null"), Members());
    EXPECT_EQ(readMapReply("[]"), Members());
}

TEST(NumberReply, decimalTextIsTheNumber)
{
    EXPECT_EQ(readCounterReply("42"), 42U);
    EXPECT_EQ(readTimerReply("5000000000"), 5000000000U);
}

TEST(NumberReply, emptyOrOtherTextIsZero)
{
    EXPECT_EQ(readCounterReply(""), 0U);
    EXPECT_EQ(readCounterReply("abc"), 0U);
    EXPECT_EQ(readCounterReply("{}"), 0U);
    EXPECT_EQ(readTimerReply(""), 0U);
    EXPECT_EQ(readTimerReply("{}"), 0U);
}

// ------------------------------------------------------------------------------------------- notifications

TEST(NotificationReading, aStatusUpdateHasItsMembers)
{
    const Notification notification = readNotification(R"({"statusUpdate":{"k2":"b","k1":"a"}})");
    EXPECT_EQ(notification.kind, Kind::StatusUpdate);
    EXPECT_EQ(notification.members, (Members{{"k1", "a"}, {"k2", "b"}}));
}

TEST(NotificationReading, anEventUpdateHasItsMembersInNameOrder)
{
    const Notification notification = readNotification(R"({"eventUpdate":{"b":"2","a":"1"}})");
    EXPECT_EQ(notification.kind, Kind::EventUpdate);
    EXPECT_EQ(notification.members.begin()->first, "a");
    EXPECT_EQ(notification.members.size(), 2U);
}

TEST(NotificationReading, withBothKeysItIsAStatusUpdateOnly)
{
    const Notification notification =
        readNotification(R"({"statusUpdate":{"x":"1"},"eventUpdate":{"e":"v"}})");
    EXPECT_EQ(notification.kind, Kind::StatusUpdate);
    EXPECT_EQ(notification.members, (Members{{"x", "1"}}));
}

TEST(NotificationReading, aStatusUpdateWithoutMembersIsOne)
{
    const Notification notification = readNotification(R"({"statusUpdate":{}})");
    EXPECT_EQ(notification.kind, Kind::StatusUpdate);
    EXPECT_TRUE(notification.members.empty());
}

TEST(NotificationReading, scalarsThatAreNoStringsAreReadAsText)
{
    EXPECT_EQ(readNotification(R"({"statusUpdate":{"a":1,"b":false,"c":null}})").members,
              (Members{{"a", "1"}, {"b", "false"}, {"c", ""}}));
}

TEST(NotificationReading, anObjectWithoutEitherKeyIsUnhandled)
{
    EXPECT_EQ(readNotification(R"({"other":1})").kind, Kind::Unhandled);
    EXPECT_EQ(readNotification("{}").kind, Kind::Unhandled);
    EXPECT_EQ(readNotification(R"({"StatusUpdate":{}})").kind, Kind::Unhandled);
}

TEST(NotificationReading, wrongShapesAreUnparsable)
{
    for (const std::string& text :
         {std::string("no json"), std::string("{"), std::string(R"({"statusUpdate":5})"),
          std::string(R"({"statusUpdate":["a"]})"), std::string(R"({"eventUpdate":"e"})"),
          std::string(R"({"statusUpdate":{"a":{"b":1}}})"), std::string(R"({"eventUpdate":{"a":[1]}})"),
          R"({"statusUpdate":)" + deepNesting, deepNesting})
    {
        const Notification notification = readNotification(text);
        EXPECT_EQ(notification.kind, Kind::Unparsable) << text.substr(0, 60);
        EXPECT_TRUE(notification.members.empty());
    }
}

TEST(NotificationReading, jsonOfAnotherShapeIsUnhandled)
{
    for (const char* text : {"null", "[1]", "[]", "5", "true", "\"x\"", "\"statusUpdate\"", "{}"})
        EXPECT_EQ(readNotification(text).kind, Kind::Unhandled) << text;
}

TEST(NotificationReading, anUpdateThatIsNullOrAnEmptyArrayHasNoMembers)
{
    for (const char* text : {R"({"statusUpdate":null})", R"({"statusUpdate":[]})", R"({"statusUpdate":{}})"})
    {
        EXPECT_EQ(readNotification(text).kind, Kind::StatusUpdate) << text;
        EXPECT_TRUE(readNotification(text).members.empty()) << text;
    }
    for (const char* text : {R"({"eventUpdate":null})", R"({"eventUpdate":[]})", R"({"eventUpdate":{}})"})
    {
        EXPECT_EQ(readNotification(text).kind, Kind::EventUpdate) << text;
        EXPECT_TRUE(readNotification(text).members.empty()) << text;
    }
}
