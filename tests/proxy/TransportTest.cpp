#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <ostream>
#include <utility>
#include <zmq.h>

#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/LogCapture.h"

namespace
{

// Messages of all levels, no trace scopes.
const char* const allMessages = "*=7:80000000";

class Transport : public ::testing::Test
{
protected:
    Transport() { log.clear(); }

    bool send(const std::string& message)
    {
        bool sent = false;
        client->onManagerThread([&] { sent = client->sendOnSocket(client->mPostSocket, message); });
        return sent;
    }

    bool request(const std::string& message, std::string& reply, int timeoutMs = -1)
    {
        bool received = false;
        client->onManagerThread([&] { received = client->sendRequest(message, reply, timeoutMs); });
        return received;
    }

    // The result of one receive of a reply in these frames.
    bool receive(const Frames& frames, std::string& message)
    {
        broker.answerWith(frames);
        bool received = false;
        client->onManagerThread(
            [&]
            {
                client->sendOnSocket(client->mRequestSocket, "ask");
                received = client->receiveOnSocket(client->mRequestSocket, message);
            });
        return received;
    }

    LogCapture log{allMessages};
    ScriptedBroker broker;
    Client client{broker};
};

// ------------------------------------------------------------------------------------------------- sending

// The size of a message, and the sizes of the frames it must leave in.
struct Cut
{
    std::size_t size;
    std::vector<std::size_t> frames;
};

void PrintTo(const Cut& cut, std::ostream* stream)
{
    *stream << cut.size << " bytes";
}

class TransportSend : public Transport, public ::testing::WithParamInterface<Cut>
{
};

TEST_P(TransportSend, cutsPostIntoFrames)
{
    const std::string message = bytes(GetParam().size);
    EXPECT_TRUE(send(message));
    ASSERT_TRUE(broker.waitForPosts(1));
    const Frames frames = broker.posts().front();

    std::vector<std::size_t> sizes;
    std::string content;
    for (const std::string& frame : frames)
    {
        sizes.push_back(frame.size());
        content += frame;
    }
    EXPECT_EQ(sizes, GetParam().frames);
    EXPECT_EQ(content, message.substr(0, content.size()));
}

TEST_P(TransportSend, cutsRequestIntoTheSameFrames)
{
    std::string reply;
    EXPECT_TRUE(request(bytes(GetParam().size), reply));
    std::vector<std::size_t> sizes;
    const Frames frames = broker.requests().back();
    for (const std::string& frame : frames)
        sizes.push_back(frame.size());
    EXPECT_EQ(sizes, GetParam().frames);
}

// The last frame has length modulo 512, so a multiple of 512 ends with an empty frame and loses 512 bytes.
INSTANTIATE_TEST_SUITE_P(Sizes, TransportSend,
                         ::testing::Values(Cut{1, {1}}, Cut{511, {511}}, Cut{512, {0}}, Cut{513, {512, 1}},
                                           Cut{700, {512, 188}}, Cut{1024, {512, 0}},
                                           Cut{5000, {512, 512, 512, 512, 512, 512, 512, 512, 512, 392}}),
                         [](const auto& instance) { return std::to_string(instance.param.size) + "bytes"; });

TEST_F(Transport, emptyMessageIsRefusedAndLogged)
{
    EXPECT_FALSE(send(""));
    EXPECT_EQ(log.count(0, "Trying to send empty string on socket!"), 1U);
}

TEST_F(Transport, emptyMessageSendsNothing)
{
    send("");
    send("next");
    ASSERT_TRUE(broker.waitForPost("next"));
    EXPECT_EQ(broker.posts(), std::vector<Frames>{{"next"}});
}

TEST_F(Transport, messageMayHoldAnyByte)
{
    const std::string message("a\0b\n\xff", 5);
    EXPECT_TRUE(send(message));
    EXPECT_TRUE(broker.waitForPost(message));
}

TEST_F(Transport, refusedSendIsLoggedWithResultAndErrno)
{
    EXPECT_FALSE(client->sendOnSocket(nullptr, "x"));
    EXPECT_EQ(log.texts(2),
              std::vector<std::string>{"zmq_send error[4294967295] errno[" + std::to_string(ENOTSOCK) + "]"});
}

TEST_F(Transport, refusedSendIsLoggedAtLevel0)
{
    client->sendOnSocket(nullptr, "x");
    EXPECT_TRUE(log.has(0, "zmq_send error[4294967295] errno[" + std::to_string(ENOTSOCK) + "]"));
}

TEST_F(Transport, sendPostLogsTheMessageAtLevel6)
{
    client->onManagerThread([&] { client->sendPost("hello"); });
    EXPECT_EQ(log.count(6, "Sending post message [hello]"), 1U);
    EXPECT_TRUE(broker.waitForPost("hello"));
}

TEST_F(Transport, failedPostIsLoggedAndNotRetried)
{
    client->onManagerThread([&] { client->sendPost(""); });
    EXPECT_EQ(log.count(0, "Failed to send command []"), 1U);
    EXPECT_EQ(log.count(0, "Trying to send empty string on socket!"), 1U);
}

// ----------------------------------------------------------------------------------------------- receiving

class TransportReceive : public Transport, public ::testing::WithParamInterface<std::size_t>
{
};

TEST_P(TransportReceive, joinsFramesOf512Bytes)
{
    const std::string text = bytes(GetParam());
    std::string message;
    EXPECT_TRUE(receive(cut(text), message));
    EXPECT_EQ(message, text);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TransportReceive, ::testing::Values(1, 511, 512, 513, 700, 1024, 5000),
                         [](const auto& instance) { return std::to_string(instance.param) + "bytes"; });

TEST_F(Transport, framesOfDifferentSizesAreJoinedInOrder)
{
    std::string message;
    EXPECT_TRUE(receive({"a", bytes(512), "bc", "d"}, message));
    EXPECT_EQ(message, "a" + bytes(512) + "bcd");
}

TEST_F(Transport, receivedMessageReplacesTheOldOne)
{
    std::string message = "a longer text that was there before";
    EXPECT_TRUE(receive({"new"}, message));
    EXPECT_EQ(message, "new");
}

TEST_F(Transport, receivedMessageMayHoldNul)
{
    std::string message;
    EXPECT_TRUE(receive({std::string("a\0b", 3)}, message));
    EXPECT_EQ(message, std::string("a\0b", 3));
}

TEST_F(Transport, emptyFrameFailsTheReceiveAndIsLogged)
{
    std::string message = "untouched";
    EXPECT_FALSE(receive({""}, message));
    EXPECT_EQ(message, "untouched");
    EXPECT_EQ(log.count(2, "Read 0 bytes from StatusBroker"), 1U);
}

TEST_F(Transport, emptyFrameBehindOthersFailsTheWholeReceive)
{
    std::string message = "untouched";
    EXPECT_FALSE(receive({"first", ""}, message));
    EXPECT_EQ(message, "untouched");
    EXPECT_EQ(log.count(2, "Read 0 bytes from StatusBroker"), 1U);
}

TEST_F(Transport, nextMessageWorksAfterAnEmptyFrame)
{
    std::string message;
    EXPECT_FALSE(receive({"first", ""}, message));
    EXPECT_TRUE(receive({"second"}, message));
    EXPECT_EQ(message, "second");
}

TEST_F(Transport, frameLongerThan512BytesFailsTheReceive)
{
    std::string message = "untouched";
    EXPECT_FALSE(receive({bytes(513)}, message));
    EXPECT_EQ(message, "untouched");
}

TEST_F(Transport, frameLongerThan512BytesIsLoggedOnce)
{
    std::string message;
    receive({bytes(100000), bytes(600), "rest"}, message);
    EXPECT_EQ(log.texts(2),
              std::vector<std::string>{"Frame of 100000 bytes on zmq socket exceeds 512, message dropped"});
    EXPECT_TRUE(log.has(0, "Frame of 100000 bytes on zmq socket exceeds 512, message dropped"));
}

TEST_F(Transport, restOfMessageIsDroppedBehindAnOverlongFrame)
{
    std::string message;
    EXPECT_FALSE(receive({"head", bytes(513), "", bytes(700), "tail"}, message));
    EXPECT_TRUE(receive({"next"}, message));
    EXPECT_EQ(message, "next");
}

TEST_F(Transport, failedReceiveIsLoggedWithErrno)
{
    std::string message = "untouched";
    EXPECT_FALSE(client->receiveOnSocket(nullptr, message));
    EXPECT_EQ(message, "untouched");
    EXPECT_TRUE(log.has(0, "Read from zmq socket failed, errno = " + std::to_string(ENOTSOCK) + " (" +
                               zmq_strerror(ENOTSOCK) + ")"));
}

// ------------------------------------------------------------------------------------------------ requests

TEST_F(Transport, requestIsAnsweredAndLogged)
{
    broker.answerWith(Frames{"pong"});
    std::string reply;
    EXPECT_TRUE(request("ping", reply));
    EXPECT_EQ(reply, "pong");
    EXPECT_EQ(log.count(6, "Sending request message [ping]"), 1U);
    EXPECT_EQ(log.count(6, "Waiting for response on request socket"), 1U);
    EXPECT_EQ(log.count(6, "Received from response [pong] for request [ping]"), 1U);
}

TEST_F(Transport, requestIsSentOnceWhenItIsAnswered)
{
    std::string reply;
    const std::size_t before = broker.requests().size();
    request("ping", reply);
    EXPECT_EQ(broker.requests().size(), before + 1);
}

// An empty frame fails the receive, but counts as an answer, so the socket may send again.
TEST_F(Transport, requestIsTried20Times)
{
    broker.answerWith(Frames{""});
    const std::size_t before = broker.requests().size();
    std::string reply = "untouched";
    EXPECT_FALSE(request("ping", reply));
    EXPECT_EQ(reply, "untouched");
    EXPECT_EQ(broker.requests().size(), before + 20);
    EXPECT_EQ(log.count(6, "Sending request message [ping]"), 20U);
}

TEST_F(Transport, attemptsAreNumberedFrom1To20InTheLog)
{
    broker.answerWith(Frames{""});
    std::string reply;
    request("ping", reply);
    std::vector<std::string> expected;
    for (int attempt = 1; attempt <= 20; ++attempt)
    {
        expected.emplace_back("Read 0 bytes from StatusBroker");
        expected.push_back(
            "Failed to receive valid response from StatusBroker for request [ping], retry attempt [" +
            std::to_string(attempt) + "]");
    }
    EXPECT_EQ(log.texts(2), expected);
    EXPECT_TRUE(log.has(2, expected[1]));
    EXPECT_TRUE(log.has(2, expected[39]));
}

TEST_F(Transport, attemptsAre10MillisecondsApart)
{
    broker.answerWith(Frames{""});
    std::string reply;
    const auto start = std::chrono::steady_clock::now();
    request("ping", reply);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST_F(Transport, laterAttemptCanSucceed)
{
    broker.answerWith([answers = std::make_shared<int>(0)](const std::string&)
                      { return Frames{++*answers < 20 ? "" : "at last"}; });
    std::string reply;
    EXPECT_TRUE(request("ping", reply));
    EXPECT_EQ(reply, "at last");
    EXPECT_FALSE(log.has(2, "Failed to receive valid response from StatusBroker for request [ping], "
                            "retry attempt [20]"));
}

TEST_F(Transport, overlongReplyIsRetried)
{
    broker.answerWith(
        [answers = std::make_shared<int>(0)](const std::string&) {
            return (*answers)++ == 0 ? Frames{bytes(600), "rest"} : Frames{"fine"};
        });
    std::string reply;
    EXPECT_TRUE(request("ping", reply));
    EXPECT_EQ(reply, "fine");
}

TEST_F(Transport, failedSendOfARequestIsNotRetried)
{
    std::string reply;
    EXPECT_FALSE(request("", reply));
    EXPECT_EQ(log.texts(2), (std::vector<std::string>{"Trying to send empty string on socket!",
                                                      "Failed to send command []"}));
    EXPECT_TRUE(log.has(0, "Failed to send command []"));
}

// The text names the notify socket, although it is the request socket's.
TEST_F(Transport, refusedTimeLimitIsLoggedAndTheRequestStillSent)
{
    std::string reply;
    client->onManagerThread(
        [&]
        {
            void* const socket = std::exchange(client->mRequestSocket, nullptr);
            EXPECT_FALSE(client->sendRequest("ping", reply, -1));
            client->mRequestSocket = socket;
        });
    EXPECT_EQ(log.texts(2),
              (std::vector<std::string>{"Failed to zmq_setsockopt mNotifySocket",
                                        "zmq_send error[4294967295] errno[" + std::to_string(ENOTSOCK) + "]",
                                        "Failed to send command [ping]"}));
    EXPECT_TRUE(log.has(0, "Failed to zmq_setsockopt mNotifySocket"));
}

TEST_F(Transport, timeLimitIsSetOnTheRequestSocket)
{
    std::string reply;
    EXPECT_TRUE(request("ping", reply, 12345));
    int timeout = 0;
    std::size_t size = sizeof(timeout);
    client->onManagerThread(
        [&] { EXPECT_EQ(zmq_getsockopt(client->mRequestSocket, ZMQ_RCVTIMEO, &timeout, &size), 0); });
    EXPECT_EQ(timeout, 12345);
}

// ----------------------------------------------------------------------------------- a broker that is mute

class SilentBroker : public Transport
{
protected:
    SilentBroker() { broker.keepSilent(); }
};

TEST_F(SilentBroker, syncWithTimeLimitReturnsFalse)
{
    EXPECT_FALSE(client->sync(100));
}

// The first receive times out. The second send is refused, because the socket still waits for its reply.
TEST_F(SilentBroker, syncIsGivenUpAtTheSecondSend)
{
    client->sync(100);
    EXPECT_EQ(log.texts(2),
              (std::vector<std::string>{
                  "Timeout waiting for response on zmq socket",
                  "Failed to receive valid response from StatusBroker for request [Sync], retry attempt [1]",
                  "zmq_send error[4294967295] errno[" + std::to_string(EFSM) + "]",
                  "Failed to send command [Sync]", "Failed to send Sync request to StatusBroker"}));
    EXPECT_TRUE(log.has(0, "Timeout waiting for response on zmq socket"));
    EXPECT_TRUE(log.has(0, "Failed to send command [Sync]"));
    EXPECT_TRUE(log.has(0, "Failed to send Sync request to StatusBroker"));
}

TEST_F(SilentBroker, syncWaitsForItsTimeLimit)
{
    const auto start = std::chrono::steady_clock::now();
    client->sync(100);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(SilentBroker, syncSendsOneRequestOnly)
{
    const std::size_t before = broker.requests().size();
    client->sync(100);
    ASSERT_TRUE(broker.waitForRequests(before + 1));
    EXPECT_EQ(broker.requests().size(), before + 1);
}

TEST_F(SilentBroker, queriesFailAfterATimedOutSync)
{
    client->sync(10);
    broker.answerWith(Frames{"7"});
    EXPECT_EQ(client->getCounterValue("c"), 0U);
    EXPECT_TRUE(log.has(0, "Failed to send getCounterValue request to StatusBroker"));
}

// A refused send ends a request before any receive, so a late answer is never fetched.
TEST_F(SilentBroker, lateAnswerDoesNotOpenTheRequestSocketAgain)
{
    client->sync(10);
    broker.reply({"SyncAck"});
    broker.answerWith(Frames{"SyncAck"});
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(client->sync(20));
}

TEST_F(SilentBroker, postsStillGoOutAfterATimedOutSync)
{
    client->sync(10);
    client->startTimer("t");
    EXPECT_TRUE(broker.waitForPost(R"({"startTimer":"t"})"));
}

TEST_F(SilentBroker, answerWithinTheTimeLimitIsTaken)
{
    broker.reply({"SyncAck"});
    EXPECT_TRUE(client->sync(20000));
}

} // namespace

TEST_F(Transport, nextMessageWorksAfterAnEmptyFrameInTheMiddle)
{
    std::string message;
    EXPECT_FALSE(receive({"first", "", "rest"}, message));
    EXPECT_TRUE(receive({"second"}, message));
    EXPECT_EQ(message, "second");
}
