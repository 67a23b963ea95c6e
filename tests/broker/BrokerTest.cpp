// The real broker and plain ZeroMQ peers: its answers, its notifications, its refusals, its start and its
// end.

#include <csignal>
#include <gtest/gtest.h>

#include "broker/base/Refusals.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/UnreadBytes.h"

namespace
{

std::string valueRequest(const std::string& key)
{
    return R"({"getClientInfoValue":")" + key + "\"}";
}

std::string valueReply(const std::string& value)
{
    return R"({"statusValue":")" + value + "\"}";
}

class BrokerTest : public testing::Test
{
protected:
    uint64_t statistic(const std::string& name) { return brokerStatistic(requester, name); }

    BrokerProcess broker;
    RawPoster poster;
    RawRequester requester;
};

class NotificationTest : public BrokerTest
{
protected:
    RawSubscriber subscriber{poster};
};

std::size_t linesWith(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

} // namespace

// ------------------------------------------------------------------------------------------- start and end

TEST(BrokerStart, helpNamesTheOptions)
{
    TestProcess process({STATUSBROKER_PRODUCT, "--help"});
    std::string text;
    while (const auto line = process.readLine())
        text += *line + "\n";
    EXPECT_EQ(process.waitForExit(), 0);
    EXPECT_NE(text.find("--allow-set-time"), std::string::npos);
    EXPECT_NE(text.find("--version"), std::string::npos);
}

TEST(BrokerStart, versionIsPrinted)
{
    TestProcess process({STATUSBROKER_PRODUCT, "--version"});
    EXPECT_EQ(process.readLine(), "statusbroker 1.0.0");
    EXPECT_EQ(process.waitForExit(), 0);
}

TEST(BrokerStart, unknownOptionIsRefused)
{
    TestProcess process({STATUSBROKER_PRODUCT, "--no-such-option"});
    EXPECT_NE(process.waitForExit(), 0);
    EXPECT_NE(process.errors().find("--no-such-option"), std::string::npos);
}

TEST(BrokerStart, aPortInUseIsOneClearLineAndAnErrorCode)
{
    BrokerProcess first;
    TestProcess second({STATUSBROKER_PRODUCT});
    EXPECT_EQ(second.waitForExit(), 1);
    EXPECT_EQ(second.errors(), "statusbroker: cannot bind tcp://127.0.0.1:5555: Address already in use; "
                               "see \"statusctl doctor\"\n");
}

TEST(BrokerEnd, sigtermEndsItWithZero)
{
    BrokerProcess broker;
    EXPECT_EQ(broker.stop(), 0);
}

TEST(BrokerEnd, sigintEndsItWithZero)
{
    BrokerProcess broker;
    broker.process().signal(SIGINT);
    EXPECT_EQ(broker.process().waitForExit(), 0);
}

TEST(BrokerEnd, doesNotComeFromBeingStoppedAndContinued)
{
    BrokerProcess broker;
    TestProcess flood({TESTCLIENT, "flood", "k"});
    ASSERT_EQ(flood.readLine(), "posting");
    RawRequester requester;
    for (int round = 0; round < 300; ++round)
    {
        broker.process().suspend();
        broker.process().signal(SIGCONT);
        ASSERT_NE(requester.ask(valueRequest("k")), "") << round;
    }
    EXPECT_EQ(broker.stop(), 0);
}

TEST(BrokerEnd, theEndIsAnsweredToWhatWasReceived)
{
    BrokerProcess broker;
    RawPoster poster;
    RawRequester requester;
    requester.ask(valueRequest("k")); // connects
    broker.process().suspend();       // both arrive while it is stopped
    poster.post(R"({"postStatus":{"k":"last"}})");
    requester.send({valueRequest("k")});
    ASSERT_TRUE(eventually([] { return unreadBytes(5555) != 0 && unreadBytes(5556) != 0; }));
    broker.process().signal(SIGTERM);
    broker.process().signal(SIGCONT);
    EXPECT_EQ(requester.receive(), std::vector<std::string>{valueReply("last")});
    EXPECT_EQ(broker.process().waitForExit(), 0);
}

// ------------------------------------------------------------------------------------------------- answers

TEST_F(BrokerTest, anUnknownKeyHasTheEmptyValue)
{
    EXPECT_EQ(requester.ask(valueRequest("unknown")), valueReply(""));
}

TEST_F(BrokerTest, aPostedValueIsAnswered)
{
    poster.post(R"({"postStatus":{"a":"1","b":"2"}})");
    EXPECT_EQ(requester.ask(valueRequest("a")), valueReply("1"));
    EXPECT_EQ(requester.ask(R"({"getClientInfo":"null"})"), R"({"a":"1","b":"2"})");
    EXPECT_EQ(requester.ask(R"({"getClientInfoValues":["b","unknown"]})"), R"({"b":"2"})");
}

TEST_F(BrokerTest, aResetKeyIsKeptWithTheEmptyValue)
{
    poster.post(R"({"postStatus":{"a":"1"}})");
    poster.post(R"({"resetStatus":["a","never posted"]})");
    EXPECT_EQ(requester.ask(R"({"getClientInfo":"null"})"), R"({"a":"","never posted":""})");
}

TEST_F(BrokerTest, countersCountAndWrap)
{
    EXPECT_EQ(requester.ask(R"({"getCounterValue":"c"})"), "0");
    EXPECT_EQ(requester.ask(R"({"incrementCounter":"c"})"), "1");
    poster.post(R"({"setCounterValue":{"c":4294967295}})");
    EXPECT_EQ(requester.ask(R"({"getCounterValue":"c"})"), "-1");
    EXPECT_EQ(requester.ask(R"({"incrementCounter":"c"})"), "0");
}

TEST_F(BrokerTest, aTimerRunsFromStartToStop)
{
    EXPECT_EQ(requester.ask(R"({"getTimerElapsed":"t"})"), "0");
    poster.post(R"({"startTimer":"t"})");
    ASSERT_TRUE(eventually([&] { return std::stoull(requester.ask(R"({"getTimerElapsed":"t"})")) >= 2000; }));
    poster.post(R"({"stopTimer":"t"})");
    const std::string stopped = requester.ask(R"({"getTimerElapsed":"t"})");
    EXPECT_EQ(requester.ask(R"({"getTimerElapsed":"t"})"), stopped);
    poster.post(R"({"resetTimer":"t"})");
    EXPECT_EQ(requester.ask(R"({"getTimerElapsed":"t"})"), "0");
}

TEST_F(BrokerTest, aTimersLastStartIsInMicrosecondsSinceTheEpoch)
{
    const auto now = []
    {
        using namespace std::chrono;
        return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    };
    const auto before = now();
    poster.post(R"({"restartTimer":"t"})");
    const auto started = std::stoll(requester.ask(R"({"getTimerLastStarted":"t"})"));
    EXPECT_GE(started, before);
    EXPECT_LE(started, now());
}

TEST_F(BrokerTest, repliesAreFramedWithALastFrameThatIsNeverEmpty)
{
    for (const std::size_t size : {1U, 511U, 512U, 513U, 1024U, 5000U})
    {
        const std::size_t valueSize =
            std::max<std::size_t>(size, valueReply("").size()) - valueReply("").size();
        const std::string value(valueSize, 'v');
        poster.post(R"({"postStatus":{"k":")" + value + "\"}}");
        requester.send({valueRequest("k")});
        const auto frames = requester.receive();
        ASSERT_TRUE(frames);
        std::string text;
        for (const std::string& frame : *frames)
        {
            EXPECT_LE(frame.size(), 512U);
            EXPECT_FALSE(frame.empty());
            text += frame;
        }
        EXPECT_TRUE(text == valueReply(value)) << size;
    }
}

TEST_F(BrokerTest, aPostInSeveralFramesIsOnePost)
{
    poster.post({R"({"postStatus":)", R"({"k":"v"})", "}"});
    EXPECT_EQ(requester.ask(valueRequest("k")), valueReply("v"));
}

// ------------------------------------------------------------------------------------------- notifications

TEST_F(NotificationTest, onePostIsOneUpdateOfWhatChanged)
{
    poster.post(R"({"postStatus":{"a":"1","b":"2"}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"statusUpdate":{"a":"1","b":"2"}})");
    poster.post(R"({"postStatus":{"a":"1","b":"3"}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"statusUpdate":{"b":"3"}})");
}

TEST_F(NotificationTest, aPostThatRepeatsTheValuePublishesNothing)
{
    poster.post(R"({"postStatus":{"a":"1"}})");
    poster.post(R"({"postStatus":{"a":"1"}})");
    poster.post(R"({"postStatus":{}})");
    poster.post(R"({"postStatus":{"end":"1"}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"statusUpdate":{"a":"1"}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"statusUpdate":{"end":"1"}})");
}

TEST_F(NotificationTest, updatesKeepTheOrderOfThePosts)
{
    for (int index = 0; index < 500; ++index)
        poster.post(R"({"postStatus":{"k":")" + std::to_string(index) + "\"}}");
    for (int index = 0; index < 500; ++index)
        ASSERT_EQ(subscriber.receiveText(), R"({"statusUpdate":{"k":")" + std::to_string(index) + "\"}}");
}

TEST_F(NotificationTest, aResetIsPublishedAsTheEmptyValueOnce)
{
    poster.post(R"({"resetStatus":["a"]})");
    poster.post(R"({"resetStatus":["a"]})");
    poster.post(R"({"postEvent":{"end":"1"}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"statusUpdate":{"a":""}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"eventUpdate":{"end":"1"}})");
}

TEST_F(NotificationTest, everyEventIsPublishedAlsoARepeatedOne)
{
    poster.post(R"({"postEvent":{"e":"v"}})");
    poster.post(R"({"postEvent":{"e":"v"}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"eventUpdate":{"e":"v"}})");
    EXPECT_EQ(subscriber.receiveText(), R"({"eventUpdate":{"e":"v"}})");
}

TEST_F(NotificationTest, aLongUpdateIsFramedWithALastFrameThatIsNeverEmpty)
{
    // {"statusUpdate":{"k":"..."}} is 25 bytes longer than the value.
    for (const std::size_t size : {512U, 1024U, 1025U})
    {
        const std::string value(size - 25, static_cast<char>('a' + size % 7));
        poster.post(R"({"postStatus":{"k":")" + value + "\"}}");
        const auto frames = subscriber.receive();
        ASSERT_TRUE(frames);
        EXPECT_EQ(frames->size(), (size + 511) / 512);
        for (const std::string& frame : *frames)
        {
            EXPECT_LE(frame.size(), 512U);
            EXPECT_FALSE(frame.empty());
        }
    }
}

// ------------------------------------------------------------------------------------------- hostile input

TEST_F(BrokerTest, malformedRequestsAreAnsweredAtOnceWithAnEmptyObject)
{
    const std::vector<std::string> malformed{
        "",
        "{",
        "no json",
        "[1]",
        "5",
        "{}",
        R"({"unknown":"x"})",
        R"({"postStatus":{"a":"1"}})",
        R"({"getClientInfoValue":5})",
        R"({"getClientInfoValue":["a"]})",
        R"({"getClientInfoValues":"a"})",
        R"({"getClientInfoValues":[["a"]]})",
        R"({"getCounterValue":{"a":1}})",
        R"({"getClientInfo":"null","getCounterValue":"c"})",
        "sync",
        "SyncAck",
        std::string(100000, '['),
        std::string(1024 * 1024, 'x'),
    };
    for (const std::string& request : malformed)
        EXPECT_EQ(requester.ask(request), "{}") << request.substr(0, 60);
    EXPECT_EQ(requester.ask(valueRequest("k")), valueReply(""));
    EXPECT_EQ(statistic("malformed.requests"), malformed.size());
    EXPECT_EQ(broker.stop(), 0); // before the end, lines may wait for the name of their client
    EXPECT_EQ(linesWith(broker.process().errors(), "Malformed request"), Refusals::linesPerWindow);
}

TEST_F(BrokerTest, aRequestThatIsTooLongOverItsFramesIsRefused)
{
    const std::string part(600 * 1024, 'x');
    requester.send({part, part});
    EXPECT_EQ(requester.receive(), std::vector<std::string>{"{}"});
}

TEST_F(BrokerTest, aBrokenEnvelopeIsAnsweredAndHarmsNobody)
{
    RawRequester dealer(zmq::socket_type::dealer);
    dealer.send({"no delimiter"});
    EXPECT_EQ(dealer.receive(), (std::vector<std::string>{"", "{}"}));
    dealer.send({"not empty", valueRequest("k")});
    EXPECT_EQ(dealer.receive(), (std::vector<std::string>{"", "{}"}));
    EXPECT_EQ(requester.ask(valueRequest("k")), valueReply(""));
}

TEST_F(BrokerTest, malformedPostsAreLoggedAndChangeNothing)
{
    poster.post(R"({"postStatus":{"k":"good"}})");
    const std::vector<std::string> malformed{
        "",
        "{",
        R"({"postStatus":{"k":"trunc)",
        R"({"postStatus":{"k":1}})",
        R"({"postStatus":{"k":null}})",
        R"({"postStatus":["k"]})",
        R"({"postStatus":{"k":{"a":"b"}}})",
        R"({"resetStatus":"k"})",
        R"({"resetStatus":[1]})",
        R"({"setCounterValue":{"c":-1}})",
        R"({"setCounterValue":{"c":4294967296}})",
        R"({"setCounterValue":{"c":1,"d":2}})",
        R"({"setCounterValue":{}})",
        R"({"startTimer":5})",
        R"({"updateSystemTime":"5"})",
        R"({"getClientInfo":"null"})",
        R"({"postStatus":{"k":"bad"},"resetStatus":["k"]})",
        std::string(100000, '['),
    };
    for (const std::string& post : malformed)
        poster.post(post);
    EXPECT_EQ(requester.ask(R"({"getClientInfo":"null"})"), R"({"k":"good"})");
    EXPECT_EQ(requester.ask(R"({"getCounterValue":"c"})"), "0");
    EXPECT_EQ(statistic("malformed.posts"), malformed.size());
    EXPECT_EQ(broker.stop(), 0); // before the end, lines may wait for the name of their client
    EXPECT_EQ(linesWith(broker.process().errors(), "Malformed post"), Refusals::linesPerWindow);
}

TEST_F(BrokerTest, aPostThatIsTooLongOverItsFramesIsRefused)
{
    const std::string part(600 * 1024, 'x');
    poster.post({R"({"postStatus":{"k":")" + part, part + "\"}}"});
    EXPECT_EQ(requester.ask(valueRequest("k")), valueReply(""));
    EXPECT_TRUE(broker.process().waitForError("Post of more than 1048576 bytes refused"));
}

// ----------------------------------------------------------------------------------------------- the clock

TEST_F(BrokerTest, settingTheTimeIsRefusedByDefault)
{
    poster.post(R"({"updateSystemTime":1000000000})");
    EXPECT_TRUE(broker.process().waitForError("Setting the system time to 1000000000 refused"));
    EXPECT_EQ(broker.process().errors().find("clock set"), std::string::npos);
}

TEST(BrokerClock, withAllowSetTimeItIsSet)
{
    BrokerProcess broker({"--allow-set-time"});
    RawPoster poster;
    poster.post(R"({"updateSystemTime":4000000000})");
    EXPECT_TRUE(broker.process().waitForError("clock set to 4000000000"));
}

TEST(BrokerEnd, aReaderOfItsLogThatGoesAwayDoesNotEndIt)
{
    BrokerProcess broker;
    broker.process().closeErrors();
    RawRequester requester;
    for (int count = 0; count < 3; ++count)
        EXPECT_EQ(requester.ask("malformed, and so logged"), "{}");
    EXPECT_EQ(broker.stop(), 0);
}
