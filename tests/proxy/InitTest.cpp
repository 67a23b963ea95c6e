#include <algorithm>
#include <future>
#include <gtest/gtest.h>
#include <ostream>

#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/proxy/ZmqInterposer.h"
#include "tests/support/LogCapture.h"

namespace
{

using Texts = std::vector<std::string>;

// Level, signature and text of a log line.
struct Line
{
    int level;
    std::string function;
    std::string text;

    bool operator==(const Line& other) const
    {
        return level == other.level && function == other.function && text == other.text;
    }
};

void PrintTo(const Line& line, std::ostream* stream)
{
    *stream << line.level << ' ' << line.function << ": " << line.text;
}

// The lines logged by the client's source file.
std::vector<Line> linesOf(const LogCapture& log)
{
    std::vector<Line> lines;
    for (const LogLine& line : log.lines())
    {
        if (line.file == "/StatusManagerProxy.cpp")
            lines.push_back({line.level, line.function, line.text});
    }
    return lines;
}

const std::string setUp = "void StatusManagerProxy::initSockets()";
const std::string post = "void StatusManagerProxy::sendPost(std::string)";
const std::string request = "bool StatusManagerProxy::sendRequest(const string&, std::string&, int)";
const std::string handshake = "virtual bool StatusManagerProxy::sync(int)";
const std::string loop = "void StatusManagerProxy::processStatusMessages(void*)";

const std::vector<Line> startUpLines{
    {7, setUp, "Creating ZMQ context"},
    {7, setUp, "Creating ZMQ sockets"},
    {7, setUp, "Connecting post socket"},
    {7, setUp, "Connecting request socket"},
    {6, setUp, "Sending Sync on post socket"},
    {6, post, "Sending post message [Sync]"},
    {5, setUp, "Attempting to connect to statusbroker"},
    {6, handshake, "Sending Sync on request socket and waiting for response"},
    {6, request, "Sending request message [Sync]"},
    {6, request, "Waiting for response on request socket"},
    {6, request, "Received from response [SyncAck] for request [Sync]"},
    {6, handshake, "Received response [SyncAck] to Sync request"},
    {7, handshake, "Successfully received SyncAck from StatusBroker"},
    {5, setUp, "Connection to statusbroker successful"},
    {7, loop, "Creating notify socket"},
    {7, loop, "Connecting notify socket"},
    {7, loop, "Setting notify socket options"},
    {7, loop, "Beginning poll for messages on notify socket"},
    {6, loop, "Polling for messages on notify socket"},
};

std::vector<Line> upTo(int level)
{
    std::vector<Line> lines = startUpLines;
    lines.erase(
        std::remove_if(lines.begin(), lines.end(), [&](const Line& line) { return line.level > level; }),
        lines.end());
    return lines;
}

class Init : public ::testing::Test
{
protected:
    Init() { ZmqInterposer::reset(); }
    ~Init() override { ZmqInterposer::reset(); }
};

// ------------------------------------------------------------------------------------------- all goes well

class StartUp : public Init, public ::testing::WithParamInterface<int>
{
};

TEST_P(StartUp, logsEachStepInTheNameOfTheOperationThatTakesIt)
{
    const LogCapture log("*=" + std::to_string(GetParam()) + ":80000000");
    ScriptedBroker broker;
    const Client client(broker);
    const std::vector<Line> expected = upTo(GetParam());
    ASSERT_TRUE(log.waitFor(expected.back().level, expected.back().text));
    EXPECT_EQ(linesOf(log), expected);
}

INSTANTIATE_TEST_SUITE_P(Levels, StartUp, ::testing::Values(5, 6, 7),
                         [](const auto& instance) { return "level" + std::to_string(instance.param); });

TEST_F(Init, socketsAreMadeAndUsedInThisOrder)
{
    const LogCapture log("*=6:80000000");
    ScriptedBroker broker;
    const Client client(broker);
    ASSERT_TRUE(log.waitFor(6, "Polling for messages on notify socket"));
    EXPECT_EQ(ZmqInterposer::names(),
              (Texts{"zmq_ctx_new", "zmq_socket PUB", "zmq_socket REQ", "zmq_connect PUB", "zmq_connect REQ",
                     "zmq_send PUB", "zmq_setsockopt REQ", "zmq_send REQ", "zmq_socket SUB",
                     "zmq_connect SUB", "zmq_setsockopt SUB"}));
}

TEST_F(Init, notifySocketBelongsToTheNotifyThreadAndTheRestToTheManagers)
{
    const LogCapture log("*=6:80000000");
    ScriptedBroker broker;
    const Client client(broker);
    ASSERT_TRUE(log.waitFor(6, "Polling for messages on notify socket"));
    std::thread::id manager;
    client->onManagerThread([&] { manager = std::this_thread::get_id(); });
    for (const ZmqInterposer::Call& call : ZmqInterposer::calls())
        EXPECT_EQ(call.thread != manager, call.name.find("SUB") != std::string::npos) << call.name;
}

TEST_F(Init, firstRequestIsSync)
{
    ScriptedBroker broker;
    const Client client(broker);
    EXPECT_EQ(broker.requests(), std::vector<Frames>{{"Sync"}});
}

TEST_F(Init, allNotificationsAreSubscribedTo)
{
    ScriptedBroker broker;
    const Client client(broker);
    EXPECT_TRUE(broker.waitForSubscriber());
}

TEST_F(Init, constructorBlocksUntilABrokerAnswers)
{
    const LogCapture log;
    auto made = std::async(std::launch::async, [] { return std::make_unique<TestProxy>(); });
    ASSERT_TRUE(log.waitFor(5, "Attempting to connect to statusbroker"));
    EXPECT_EQ(made.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);

    ScriptedBroker broker;
    std::unique_ptr<TestProxy> proxy = made.get();
    EXPECT_TRUE(log.has(5, "Connection to statusbroker successful"));
    const Pulse pulse(broker);
    proxy.reset();
}

TEST_F(Init, constructorBlocksWhileTheBrokerIsSilent)
{
    ScriptedBroker broker;
    broker.keepSilent();
    auto made = std::async(std::launch::async, [] { return std::make_unique<TestProxy>(); });
    ASSERT_TRUE(broker.waitForRequests(1));
    EXPECT_EQ(made.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    broker.reply({"SyncAck"});
    std::unique_ptr<TestProxy> proxy = made.get();
    const Pulse pulse(broker);
    proxy.reset();
}

// ------------------------------------------------------------------------------------------ a wrong answer

TEST_F(Init, wrongAnswerToSyncIsLogged)
{
    const LogCapture log;
    ScriptedBroker broker;
    broker.answerWith(Frames{"Nack"});
    const Client client(broker);
    EXPECT_EQ(log.texts(2), (Texts{"Received unexpected response [Nack] to Sync request",
                                   "Issue connecting to statusbroker"}));
    EXPECT_EQ(linesOf(log).back(), (Line{2, setUp, "Issue connecting to statusbroker"}));
    EXPECT_FALSE(log.has(5, "Connection to statusbroker successful"));
}

TEST_F(Init, notifyLoopStartsInSpiteOfAWrongAnswer)
{
    const LogCapture log;
    ScriptedBroker broker;
    broker.answerWith(Frames{"Nack"});
    const Client client(broker);
    EXPECT_TRUE(broker.waitForSubscriber());
}

TEST_F(Init, wrongAnswerIsNotAskedForAgain)
{
    const LogCapture log;
    ScriptedBroker broker;
    broker.answerWith(Frames{"Nack"});
    const Client client(broker);
    EXPECT_EQ(broker.requests().size(), 1U);
}

TEST_F(Init, answersWithoutContentAreRetriedAndThenGivenUp)
{
    const LogCapture log;
    ScriptedBroker broker;
    broker.answerWith(Frames{""});
    const Client client(broker);
    EXPECT_EQ(broker.requests().size(), 20U);
    EXPECT_TRUE(log.has(0, "Failed to send Sync request to StatusBroker"));
    EXPECT_TRUE(log.has(2, "Issue connecting to statusbroker"));
    EXPECT_TRUE(broker.waitForSubscriber());
}

// ------------------------------------------------------------------------------ a step of the set-up fails

struct Failure
{
    const char* name;
    const char* call;
    const char* text;
    Texts calls; // in all
};

void PrintTo(const Failure& failure, std::ostream* stream)
{
    *stream << failure.call;
}

class FailedSetUp : public Init, public ::testing::WithParamInterface<Failure>
{
protected:
    FailedSetUp() { ZmqInterposer::fail(GetParam().call); }
    LogCapture log{"*=7:80000000"};
};

TEST_P(FailedSetUp, isLoggedAndEndsTheSetUp)
{
    const TestProxy proxy;
    EXPECT_EQ(ZmqInterposer::names(), GetParam().calls);
    EXPECT_EQ(log.texts(2), Texts{GetParam().text});
    EXPECT_EQ(linesOf(log).back(), (Line{0, setUp, GetParam().text}));
}

TEST_P(FailedSetUp, sendsNoSyncAndStartsNoNotifyLoop)
{
    TestProxy proxy;
    proxy.drain();
    EXPECT_FALSE(log.has(6, "Sending Sync on post socket"));
    EXPECT_FALSE(log.has(5, "Attempting to connect to statusbroker"));
    EXPECT_EQ(proxy.mNotifyThread.getPendingCount(), 0U);
    EXPECT_FALSE(log.has(7, "Creating notify socket"));
}

// There is no notify loop, so its end needs no notification.
TEST_P(FailedSetUp, clientCanBeDestroyed)
{
    auto proxy = std::make_unique<TestProxy>();
    ZmqInterposer::reset();
    proxy.reset();
    EXPECT_EQ(ZmqInterposer::names().back(), "zmq_ctx_destroy");
}

INSTANTIATE_TEST_SUITE_P(
    Steps, FailedSetUp,
    ::testing::Values(Failure{"context", "zmq_ctx_new", "Failed to create ZMQ context", {"zmq_ctx_new"}},
                      Failure{"postSocket",
                              "zmq_socket PUB",
                              "Failed to create post socket",
                              {"zmq_ctx_new", "zmq_socket PUB"}},
                      Failure{"requestSocket",
                              "zmq_socket REQ",
                              "Failed to create request socket",
                              {"zmq_ctx_new", "zmq_socket PUB", "zmq_socket REQ"}},
                      Failure{"postConnection",
                              "zmq_connect PUB",
                              "Failed to connect post socket",
                              {"zmq_ctx_new", "zmq_socket PUB", "zmq_socket REQ", "zmq_connect PUB"}},
                      Failure{"requestConnection",
                              "zmq_connect REQ",
                              "Failed to connect requester",
                              {"zmq_ctx_new", "zmq_socket PUB", "zmq_socket REQ", "zmq_connect PUB",
                               "zmq_connect REQ"}}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(Init, laterPostsFailAndAreLoggedWithoutAPostSocket)
{
    ZmqInterposer::fail("zmq_socket PUB");
    const LogCapture log;
    TestProxy proxy;
    proxy.startTimer("t");
    proxy.drain();
    EXPECT_TRUE(log.has(0, R"(Failed to send command [{"startTimer":"t"}])"));
}

TEST_F(Init, laterQueriesFailAndAreLoggedWithoutARequestSocket)
{
    ZmqInterposer::fail("zmq_socket REQ");
    const LogCapture log;
    TestProxy proxy;
    EXPECT_EQ(proxy.getCounterValue("c"), 0U);
    EXPECT_FALSE(proxy.sync(-1));
    EXPECT_TRUE(log.has(0, R"(Failed to send command [{"getCounterValue":"c"}])"));
    EXPECT_TRUE(log.has(0, "Failed to send getCounterValue request to StatusBroker"));
    EXPECT_TRUE(log.has(0, "Failed to send Sync request to StatusBroker"));
}

// ------------------------------------------------------ a step of the notify loop, or the handshake, fails

// This notify socket never yields anything, so the loop never blocks and needs no notification to end.
class FailedNotifySetUp : public Init
{
protected:
    FailedNotifySetUp() { ZmqInterposer::fail("zmq_recv SUB"); }
    LogCapture log;
    ScriptedBroker broker;
};

TEST_F(FailedNotifySetUp, refusedSubscriptionIsLoggedAndTheLoopStillRuns)
{
    ZmqInterposer::fail("zmq_setsockopt SUB");
    const Client client(broker);
    EXPECT_TRUE(log.waitFor(2, "Received empty notify message"));
    EXPECT_EQ(log.count(0, "Failed to zmq_setsockopt mNotifySocket"), 1U);
}

TEST_F(FailedNotifySetUp, refusedConnectionIsLoggedAndTheLoopStillRuns)
{
    ZmqInterposer::fail("zmq_connect SUB");
    const Client client(broker);
    EXPECT_TRUE(log.waitFor(2, "Received empty notify message"));
    EXPECT_EQ(log.count(0, "Failed to connect mNotifySocket"), 1U);
}

TEST_F(FailedNotifySetUp, missingNotifySocketIsNotTestedFor)
{
    ZmqInterposer::fail("zmq_socket SUB");
    const Client client(broker);
    EXPECT_TRUE(log.waitFor(2, "Received empty notify message"));
    EXPECT_EQ(log.count(0, "Failed to connect mNotifySocket"), 1U);
    EXPECT_EQ(log.count(0, "Failed to zmq_setsockopt mNotifySocket"), 1U);
}

TEST_F(FailedNotifySetUp, eachFailedReceiveIsLoggedTwice)
{
    const Client client(broker);
    ASSERT_TRUE(log.waitFor(2, "Received empty notify message", 50));
    const Texts texts = log.texts(2);
    for (std::size_t i = 0; i < 150; i += 3)
    {
        EXPECT_EQ(texts[i], "Read from zmq socket failed, errno = 14 (Bad address)");
        EXPECT_EQ(texts[i + 1], "Failed to receive valid message from StatusBroker!");
        EXPECT_EQ(texts[i + 2], "Received empty notify message");
    }
}

// With a pause of only 6 ms between them, this many passes would exceed the deadline.
TEST_F(FailedNotifySetUp, theNextPassFollowsAFailedReceiveAtOnce)
{
    constexpr std::size_t passes = 5000 * TEST_TIME_FACTOR;
    const Client client(broker);
    EXPECT_TRUE(eventually([] { return ZmqInterposer::count("zmq_recv SUB") >= passes; }))
        << ZmqInterposer::count("zmq_recv SUB");
}

TEST_F(Init, refusedTimeLimitDoesNotKeepTheHandshakeFromHappening)
{
    ZmqInterposer::fail("zmq_setsockopt REQ");
    const LogCapture log;
    ScriptedBroker broker;
    const Client client(broker);
    EXPECT_EQ(log.texts(2), Texts{"Failed to zmq_setsockopt mNotifySocket"});
    EXPECT_TRUE(log.has(5, "Connection to statusbroker successful"));
}

TEST_F(Init, refusedPostOfSyncDoesNotKeepTheHandshakeFromHappening)
{
    ZmqInterposer::fail("zmq_send PUB");
    const LogCapture log;
    ScriptedBroker broker;
    const Client client(broker);
    EXPECT_EQ(log.texts(2), (Texts{"zmq_send error[4294967295] errno[14]", "Failed to send command [Sync]"}));
    EXPECT_TRUE(log.has(5, "Connection to statusbroker successful"));
}

TEST_F(Init, refusedRequestIsLoggedAndTheNotifyLoopStarts)
{
    ZmqInterposer::fail("zmq_send REQ");
    const LogCapture log;
    ScriptedBroker broker;
    const Client client(broker);
    EXPECT_EQ(log.texts(2),
              (Texts{"zmq_send error[4294967295] errno[14]", "Failed to send command [Sync]",
                     "Failed to send Sync request to StatusBroker", "Issue connecting to statusbroker"}));
    EXPECT_TRUE(broker.waitForSubscriber());
}

} // namespace
