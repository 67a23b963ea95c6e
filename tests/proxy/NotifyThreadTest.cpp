#include <algorithm>
#include <gtest/gtest.h>
#include <ostream>
#include <zmq.h>

#include "common/Logging.h"
#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingListener.h"

namespace
{

using Event = RecordingListener::Event;
using Events = std::vector<Event>;
using Updates = std::vector<StatusMap>;

class NotifyThread : public ::testing::Test
{
protected:
    NotifyThread()
    {
        client->registerListener(&listener, &listenerThread);
        client->registerForEvent(&listener, EventKeys{"done", "e", "e1", "e2"});
        client->registerForStatus(&listener, StatusKeys{"k1", "k2", "x"});
        // Each registration for status is answered by one callback.
        EXPECT_TRUE(listener.waitForUpdates(1));
        EXPECT_TRUE(broker.waitForSubscriber());
        publishAndWait("Sync");
        log.clear();
    }

    ~NotifyThread() override { client->unregisterListener(&listener); }

    // Publishes a notification. Returns when it, and all before it, have reached the listener.
    void publishAndWait(const Frames& frames)
    {
        broker.publish(frames);
        broker.publish(R"({"eventUpdate":{"done":"1"}})");
        ++mWaits;
        ASSERT_TRUE(eventually([this] { return countDone() >= mWaits; }));
    }

    void publishAndWait(const std::string& text) { publishAndWait(Frames{text}); }

    // The events since the fixture was created, without the marks of publishAndWait().
    Events events() const
    {
        Events all = listener.events();
        all.erase(std::remove_if(all.begin(), all.end(), [](const Event& e) { return e.first == "done"; }),
                  all.end());
        return all;
    }

    Updates updates() const
    {
        Updates all = listener.updates();
        all.erase(all.begin());
        return all;
    }

    std::vector<std::string> warnings() const { return log.texts(2); }

    // Expects a notification to be dropped with one log line, and the next one to arrive.
    void expectUnparsable(const std::string& text)
    {
        publishAndWait(cut(text));
        EXPECT_EQ(warnings(), std::vector<std::string>{"Failed to parse buf [" + text + "]"});
        EXPECT_TRUE(log.has(0, "Failed to parse buf [" + text + "]"));
        expectNothingDelivered();
        expectNextWorks();
    }

    void expectUnhandled(const std::string& text)
    {
        publishAndWait(text);
        EXPECT_EQ(warnings(), std::vector<std::string>{"Unhandled notify message [" + text + "]"});
        EXPECT_TRUE(log.has(2, "Unhandled notify message [" + text + "]"));
        expectNothingDelivered();
        expectNextWorks();
    }

    void expectNothingDelivered()
    {
        EXPECT_EQ(updates(), Updates{});
        EXPECT_EQ(events(), Events{});
    }

    void expectNextWorks()
    {
        const std::size_t before = updates().size();
        publishAndWait(R"({"statusUpdate":{"x":"next"}})");
        ASSERT_EQ(updates().size(), before + 1);
        EXPECT_EQ(updates().back(), (StatusMap{{"x", "next"}}));
    }

    LogCapture log{"*=7:80000000"};
    ScriptedBroker broker;
    RecordingListener listener;
    Orvane::EventThread listenerThread{"listener", 0};
    Client client{broker};

private:
    std::size_t countDone() const
    {
        const Events all = listener.events();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), Event{"done", "1"}));
    }

    std::size_t mWaits = 0;
};

// ---------------------------------------------------------------------------------------- what is expected

TEST_F(NotifyThread, syncIsOnlyLogged)
{
    publishAndWait("Sync");
    EXPECT_EQ(log.count(6, "Received Sync on notify socket"), 1U);
    EXPECT_FALSE(log.has(6, "Handling notify message [Sync]"));
    EXPECT_EQ(warnings(), std::vector<std::string>{});
    expectNothingDelivered();
}

TEST_F(NotifyThread, statusUpdateArrivesAsOneMap)
{
    publishAndWait(R"({"statusUpdate":{"k1":"a","k2":"b"}})");
    EXPECT_EQ(updates(), (Updates{{{"k1", "a"}, {"k2", "b"}}}));
}

TEST_F(NotifyThread, eventsArriveOneByOneInOrderOfTheirNames)
{
    publishAndWait(R"({"eventUpdate":{"e2":"y","e1":"x"}})");
    EXPECT_EQ(events(), (Events{{"e1", "x"}, {"e2", "y"}}));
}

TEST_F(NotifyThread, statusUpdateHidesAnEventUpdateInTheSameMessage)
{
    publishAndWait(R"({"statusUpdate":{"x":"1"},"eventUpdate":{"e":"v"}})");
    EXPECT_EQ(updates(), (Updates{{{"x", "1"}}}));
    EXPECT_EQ(events(), Events{});
}

// A JSON value without members, and its name in test names.
struct Memberless
{
    const char* name;
    const char* text;
};

void PrintTo(const Memberless& value, std::ostream* stream)
{
    *stream << value.name;
}

class WithoutMembers : public NotifyThread, public ::testing::WithParamInterface<Memberless>
{
protected:
    WithoutMembers() { ov_log_configure("StatusManager=7:40000000"); }

    // The calls of this operation on the manager's thread, including calls that publishAndWait() causes.
    std::ptrdiff_t calls(const std::string& function) const
    {
        const std::vector<LogLine> lines = log.lines();
        return std::count_if(lines.begin(), lines.end(),
                             [&](const LogLine& line)
                             { return line.function == function && line.text == "begin"; });
    }

    const std::string handleStatusUpdate = "void StatusManager::handleStatusUpdate(StatusMap)";
    const std::string handleEventUpdate = "void StatusManager::handleEventUpdate(std::string, std::string)";
};

TEST_P(WithoutMembers, aStatusUpdateIsOneUpdateOfNothing)
{
    publishAndWait(std::string(R"({"statusUpdate":)") + GetParam().text + "}");
    EXPECT_EQ(calls(handleStatusUpdate), 1);
    EXPECT_EQ(warnings(), std::vector<std::string>{});
    expectNothingDelivered();
    expectNextWorks();
}

TEST_P(WithoutMembers, anEventUpdateIsNoEvent)
{
    publishAndWait(std::string(R"({"eventUpdate":)") + GetParam().text + "}");
    EXPECT_EQ(calls(handleStatusUpdate), 0);
    EXPECT_EQ(calls(handleEventUpdate), 1); // the mark
    EXPECT_EQ(warnings(), std::vector<std::string>{});
    expectNothingDelivered();
    expectNextWorks();
}

INSTANTIATE_TEST_SUITE_P(Values, WithoutMembers,
                         ::testing::Values(Memberless{"null", "null"}, Memberless{"emptyArray", "[]"},
                                           Memberless{"emptyObject", "{}"}),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(NotifyThread, updatesArriveInTheOrderInWhichTheyWerePublished)
{
    Updates expected;
    for (int i = 0; i < 200; ++i)
    {
        broker.publish(R"({"statusUpdate":{"x":")" + std::to_string(i) + R"("}})");
        expected.push_back({{"x", std::to_string(i)}});
    }
    publishAndWait("Sync");
    EXPECT_EQ(updates(), expected);
}

TEST_F(NotifyThread, listenerIsCalledOnItsOwnThread)
{
    publishAndWait(R"({"statusUpdate":{"x":"1"}})");
    std::thread::id own;
    struct Asker
    {
        std::thread::id* id;
        void ask() { *id = std::this_thread::get_id(); }
    } asker{&own};
    auto* agent = OV_NEW Orvane::SyncEventAgent0<Asker>(&asker, &Asker::ask);
    agent->send(&listenerThread);
    EXPECT_EQ(listener.lastThread(), own);
}

TEST_F(NotifyThread, longNotificationIsJoinedFromItsFrames)
{
    const std::string value(5000, 'v');
    publishAndWait(cut(R"({"statusUpdate":{"x":")" + value + R"("}})"));
    EXPECT_EQ(updates(), (Updates{{{"x", value}}}));
}

TEST_F(NotifyThread, handledMessageIsLoggedAtLevel6)
{
    publishAndWait(R"({"statusUpdate":{"x":"1"}})");
    EXPECT_EQ(log.count(6, R"(Handling notify message [{"statusUpdate":{"x":"1"}}])"), 1U);
}

TEST_F(NotifyThread, eachPassIsLoggedAtLevel6)
{
    publishAndWait("Sync");
    EXPECT_TRUE(log.waitFor(6, "Polling for messages on notify socket", 2));
}

TEST_F(NotifyThread, valuesThatAreNoStringsAreConverted)
{
    publishAndWait(R"({"statusUpdate":{"k1":1,"k2":true,"x":null}})");
    EXPECT_EQ(updates(), (Updates{{{"k1", "1"}, {"k2", "true"}, {"x", ""}}}));
}

TEST_F(NotifyThread, whatFollowsTheDocumentIsIgnored)
{
    publishAndWait(R"({"statusUpdate":{"x":"1"}} trailing)");
    EXPECT_EQ(updates(), (Updates{{{"x", "1"}}}));
}

// ---------------------------------------------------------------------------------- what is not understood

TEST_F(NotifyThread, documentOfAnotherKindIsUnhandled)
{
    expectUnhandled(R"({"other":1})");
}

TEST_F(NotifyThread, emptyDocumentIsUnhandled)
{
    expectUnhandled("{}");
}

TEST_F(NotifyThread, keysAreCaseSensitive)
{
    expectUnhandled(R"({"StatusUpdate":{"x":"1"}})");
}

TEST_F(NotifyThread, textThatIsNotJsonIsUnparsable)
{
    expectUnparsable("not JSON");
}

TEST_F(NotifyThread, syncInOtherLetterCaseIsUnparsable)
{
    expectUnparsable("sync");
}

TEST_F(NotifyThread, truncatedDocumentIsUnparsable)
{
    expectUnparsable(R"({"statusUpdate":{"x":"1")");
}

TEST_F(NotifyThread, rootThatIsAnArrayIsUnhandled)
{
    expectUnhandled("[1]");
}

TEST_F(NotifyThread, rootThatIsANumberIsUnhandled)
{
    expectUnhandled("5");
}

TEST_F(NotifyThread, rootThatIsAStringIsUnhandled)
{
    expectUnhandled(R"("statusUpdate")");
}

TEST_F(NotifyThread, rootThatIsNullIsUnhandled)
{
    expectUnhandled("null");
}

TEST_F(NotifyThread, statusUpdateThatIsNoObjectIsUnparsable)
{
    expectUnparsable(R"({"statusUpdate":5})");
}

TEST_F(NotifyThread, eventUpdateThatIsAnArrayIsUnparsable)
{
    expectUnparsable(R"({"eventUpdate":["e"]})");
}

TEST_F(NotifyThread, nestedObjectAsStatusValueIsUnparsable)
{
    expectUnparsable(R"({"statusUpdate":{"k1":"good","x":{"b":1}}})");
}

TEST_F(NotifyThread, nestedArrayAsEventValueIsUnparsable)
{
    expectUnparsable(R"({"eventUpdate":{"e1":"good","e2":[]}})");
}

TEST_F(NotifyThread, nestingThatIsTooDeepIsDropped)
{
    publishAndWait(cut(std::string(100000, '[')));
    ASSERT_EQ(warnings().size(), 1U);
    EXPECT_EQ(warnings().front().substr(0, 24), "Failed to parse buf [[[[");
    expectNothingDelivered();
    expectNextWorks();
}

TEST_F(NotifyThread, nestingThatIsTooDeepInsideAnUpdateIsDropped)
{
    publishAndWait(cut(R"({"statusUpdate":{"x":)" + std::string(50000, '[')));
    EXPECT_EQ(warnings().size(), 1U);
    expectNothingDelivered();
    expectNextWorks();
}

// The parser takes about 500 KiB of the thread's stack for it (JsonCpp 1.9.5, x86_64).
TEST_F(NotifyThread, theDeepestNestingThatTheParserTakesFitsTheStack)
{
    std::string deepest;
    constexpr int depth = 990;
    for (int level = 0; level < depth; ++level)
        deepest += R"({"a":)";
    publishAndWait(cut(R"({"statusUpdate":)" + deepest + "1" + std::string(depth + 1, '}')));
    EXPECT_EQ(warnings().size(), 1U);
    expectNothingDelivered();
    expectNextWorks();
}

TEST_F(NotifyThread, bytesThatAreNotUtf8DoNoHarm)
{
    publishAndWait("{\"statusUpdate\":{\"other\":\"\xff\xfe\"}}");
    expectNextWorks();
}

// ----------------------------------------------------------------------------------------- failed receives

// Logged for the failed receive, and for the message that stayed empty.
TEST_F(NotifyThread, emptyNotificationIsLoggedTwice)
{
    publishAndWait("");
    EXPECT_EQ(warnings(), (std::vector<std::string>{"Read 0 bytes from StatusBroker",
                                                    "Failed to receive valid message from StatusBroker!",
                                                    "Received empty notify message"}));
    EXPECT_TRUE(log.has(2, "Failed to receive valid message from StatusBroker!"));
    EXPECT_TRUE(log.has(2, "Received empty notify message"));
    expectNextWorks();
}

TEST_F(NotifyThread, notificationWithAnEmptyLastFrameIsDropped)
{
    publishAndWait(Frames{R"({"statusUpdate":{"x":"1"}})", ""});
    EXPECT_TRUE(log.has(2, "Failed to receive valid message from StatusBroker!"));
    expectNothingDelivered();
    expectNextWorks();
}

TEST_F(NotifyThread, notificationWithAnOverlongFrameIsDroppedWhole)
{
    publishAndWait(Frames{"head", std::string(513, 'x'), "", R"({"statusUpdate":{"x":"1"}})"});
    EXPECT_EQ(warnings(),
              (std::vector<std::string>{"Frame of 513 bytes on zmq socket exceeds 512, message dropped",
                                        "Failed to receive valid message from StatusBroker!",
                                        "Received empty notify message"}));
    expectNothingDelivered();
    expectNextWorks();
}

TEST_F(NotifyThread, hostileNotificationsInARowDoNotStopTheLoop)
{
    for (int i = 0; i < 100; ++i)
    {
        broker.publish("");
        broker.publish("[");
        broker.publish(std::string(2000, '{'));
        broker.publish(R"({"statusUpdate":[]})");
    }
    expectNextWorks();
    EXPECT_EQ(log.count(2, "Received empty notify message"), 200U);
}

} // namespace
