#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <gtest/gtest.h>
#include <ostream>

#include "common/Logging.h"
#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingListener.h"

namespace
{

using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;

// A reply and what a test calls it.
struct Reply
{
    const char* name;
    const char* text;
};

void PrintTo(const Reply& reply, std::ostream* stream)
{
    *stream << reply.name;
}

std::string nameOf(const ::testing::TestParamInfo<Reply>& reply)
{
    return reply.param.name;
}

class Operations : public ::testing::Test
{
protected:
    Operations() { log.clear(); }

    // The text of the last request.
    std::string lastRequest() const
    {
        std::string text;
        const Frames frames = broker.requests().back();
        for (const std::string& frame : frames)
            text += frame;
        return text;
    }

    std::vector<Frames> onePost() const
    {
        EXPECT_TRUE(broker.waitForPosts(1));
        return broker.posts();
    }

    void answer(const std::string& reply) { broker.answerWith(cut(reply)); }

    // Exactly one such line, with the signature of this operation.
    void expectLine(int level, const std::string& text, const std::string& function) const
    {
        std::vector<std::string> functions;
        for (const LogLine& line : log.lines())
        {
            if (line.level == level && line.text == text && line.file == "/StatusManagerProxy.cpp")
                functions.push_back(line.function);
        }
        EXPECT_EQ(functions, std::vector<std::string>{function}) << text;
    }

    // Signatures as the log spells them.
    const std::string getClientInfo = "virtual StatusMap StatusManagerProxy::getClientInfo()";
    const std::string getClientInfoValue =
        "virtual std::string StatusManagerProxy::getClientInfoValue(const string&)";
    const std::string getClientInfoValues =
        "virtual StatusMap StatusManagerProxy::getClientInfoValues(const StatusKeys&)";
    const std::string getTimerElapsed = "virtual uint64_t StatusManagerProxy::getTimerElapsed(const string&)";
    const std::string getTimerLastStarted =
        "virtual uint64_t StatusManagerProxy::getTimerLastStarted(const string&)";
    const std::string getCounterValue = "virtual uint32_t StatusManagerProxy::getCounterValue(const string&)";
    const std::string incrementCounter =
        "virtual uint32_t StatusManagerProxy::incrementCounter(const string&)";
    const std::string sync = "virtual bool StatusManagerProxy::sync(int)";

    LogCapture log{"*=7:80000000"};
    ScriptedBroker broker;
    Client client{broker};
};

// ------------------------------------------------------------------------------------ posts, byte for byte

TEST_F(Operations, updateSystemTimePostsTheTimeAsANumber)
{
    client->updateSystemTime(1700000000);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"updateSystemTime":1700000000})"}}));
}

TEST_F(Operations, updateSystemTimeIsUnsigned)
{
    client->updateSystemTime(4294967295U);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"updateSystemTime":4294967295})"}}));
}

TEST_F(Operations, postStatusPostsAllPairsInOrderOfTheirKeys)
{
    client->postStatus(StatusMap{{"b", "2"}, {"a", "1"}});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"a":"1","b":"2"}})"}}));
}

TEST_F(Operations, postStatusOfAnEmptyMapPostsAnEmptyObject)
{
    client->postStatus(StatusMap{});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{}})"}}));
}

TEST_F(Operations, postStatusOfOnePairReachesTheBroker)
{
    client->postStatus("key", "value");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"key":"value"}})"}}));
}

TEST_F(Operations, postStatusOfOnePairReachesTheBrokerFromTheManagersThread)
{
    client->onManagerThread([&] { client->postStatus("key", "value"); });
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"key":"value"}})"}}));
}

TEST_F(Operations, postedTextIsEscaped)
{
    client->postStatus("k\"", "a\\\n\xc3\xa9");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"k\"":"a\\\n\u00e9"}})"}}));
}

TEST_F(Operations, longPostIsCutIntoFrames)
{
    client->postStatus("k", std::string(700, 'v'));
    const std::string text = R"({"postStatus":{"k":")" + std::string(700, 'v') + R"("}})";
    EXPECT_EQ(onePost(), (std::vector<Frames>{cut(text)}));
}

TEST_F(Operations, resetStatusPostsTheKeysInTheirOrder)
{
    client->resetStatus(StatusKeys{"b", "a"});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetStatus":["b","a"]})"}}));
    EXPECT_EQ(log.count(7, "Key[0] = [b]"), 1U);
    EXPECT_EQ(log.count(7, "Key[1] = [a]"), 1U);
}

TEST_F(Operations, resetStatusOfNoKeysPostsAnEmptyArray)
{
    client->resetStatus(StatusKeys{});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetStatus":[]})"}}));
}

TEST_F(Operations, resetStatusOfOneKeyReachesTheBroker)
{
    client->resetStatus("key");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetStatus":["key"]})"}}));
}

TEST_F(Operations, postEventPostsNameAndValue)
{
    client->postEvent("e", "v", 0);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postEvent":{"e":"v"}})"}}));
}

TEST_F(Operations, startTimerPostsTheName)
{
    client->startTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"startTimer":"boot"})"}}));
}

TEST_F(Operations, stopTimerPostsTheName)
{
    client->stopTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"stopTimer":"boot"})"}}));
}

TEST_F(Operations, resetTimerPostsTheName)
{
    client->resetTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetTimer":"boot"})"}}));
}

TEST_F(Operations, restartTimerPostsTheName)
{
    client->restartTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"restartTimer":"boot"})"}}));
}

TEST_F(Operations, emptyTimerNameIsPosted)
{
    client->startTimer("");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"startTimer":""})"}}));
}

TEST_F(Operations, setCounterValuePostsAnUnsignedNumber)
{
    client->setCounterValue("c", 4294967295U);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"setCounterValue":{"c":4294967295}})"}}));
}

TEST_F(Operations, postsLeaveInTheOrderOfTheirCalls)
{
    std::vector<Frames> expected;
    for (int i = 0; i < 300; ++i)
    {
        client->startTimer(std::to_string(i));
        expected.push_back({R"({"startTimer":")" + std::to_string(i) + R"("})"});
    }
    ASSERT_TRUE(broker.waitForPosts(300));
    EXPECT_EQ(broker.posts(), expected);
}

TEST_F(Operations, postsAreNotKeptLocally)
{
    client->postStatus("k", "v");
    client->setCounterValue("c", 5);
    EXPECT_EQ(client->getClientInfo(), StatusMap{});
    answer("0");
    EXPECT_EQ(client->getCounterValue("c"), 0U);
}

// ---------------------------------------------------------------------------------- queries, byte for byte

TEST_F(Operations, getClientInfoAsksWithTheStringNull)
{
    client->getClientInfo();
    EXPECT_EQ(lastRequest(), R"({"getClientInfo":"null"})");
}

TEST_F(Operations, getClientInfoReturnsAllMembers)
{
    answer(R"({"b":"2","a":"1"})");
    EXPECT_EQ(client->getClientInfo(), (StatusMap{{"a", "1"}, {"b", "2"}}));
}

TEST_F(Operations, getClientInfoReadsAReplyOfManyFrames)
{
    const std::string value(5000, 'v');
    answer(R"({"a":")" + value + R"("})");
    EXPECT_EQ(client->getClientInfo(), (StatusMap{{"a", value}}));
}

TEST_F(Operations, getClientInfoValueAsksForTheKey)
{
    client->getClientInfoValue("k");
    EXPECT_EQ(lastRequest(), R"({"getClientInfoValue":"k"})");
}

TEST_F(Operations, getClientInfoValueReturnsMemberStatusValue)
{
    answer(R"({"other":"x","statusValue":"v"})");
    EXPECT_EQ(client->getClientInfoValue("k"), "v");
    EXPECT_EQ(log.count(7, "Status value for status key[k] requested"), 1U);
    EXPECT_EQ(log.count(7, "Received requested status value, status[k] = value[v]"), 1U);
}

TEST_F(Operations, getClientInfoValueIsEmptyForAMissingMember)
{
    answer(R"({"k":"v"})");
    EXPECT_EQ(client->getClientInfoValue("k"), "");
    EXPECT_EQ(log.texts(2), Texts{});
}

TEST_F(Operations, getClientInfoValuesAsksForTheKeysInTheirOrder)
{
    client->getClientInfoValues(StatusKeys{"b", "a"});
    EXPECT_EQ(lastRequest(), R"({"getClientInfoValues":["b","a"]})");
    EXPECT_EQ(log.count(7, "Status value for 2 status keys requested"), 1U);
    EXPECT_EQ(log.count(7, "Key[0] = [b]"), 1U);
    EXPECT_EQ(log.count(7, "Key[1] = [a]"), 1U);
}

TEST_F(Operations, getClientInfoValuesAsksEvenForNoKeys)
{
    client->getClientInfoValues(StatusKeys{});
    EXPECT_EQ(lastRequest(), R"({"getClientInfoValues":[]})");
}

TEST_F(Operations, getClientInfoValuesReturnsAllMembersWhateverWasAsked)
{
    answer(R"({"z":"26","a":"1"})");
    EXPECT_EQ(client->getClientInfoValues(StatusKeys{"q", "r", "s"}), (StatusMap{{"a", "1"}, {"z", "26"}}));
    EXPECT_EQ(log.count(7, "Received requested status value pairs for 2 status keys"), 1U);
    EXPECT_EQ(log.count(7, "Pair[0]: Key[a] = [1]"), 1U);
    EXPECT_EQ(log.count(7, "Pair[1]: Key[z] = [26]"), 1U);
}

TEST_F(Operations, valuesInRepliesAreConvertedToStrings)
{
    answer(R"({"a":1,"b":true,"c":null,"d":1.5})");
    EXPECT_EQ(client->getClientInfo(), (StatusMap{{"a", "1"}, {"b", "true"}, {"c", ""}, {"d", "1.5"}}));
}

TEST_F(Operations, getTimerElapsedAsksForTheName)
{
    client->getTimerElapsed("boot");
    EXPECT_EQ(lastRequest(), R"({"getTimerElapsed":"boot"})");
}

TEST_F(Operations, getTimerElapsedReadsMoreThan32Bits)
{
    answer("5000000000");
    EXPECT_EQ(client->getTimerElapsed("boot"), 5000000000U);
}

TEST_F(Operations, getTimerElapsedSecondsAsksForTheElapsedTime)
{
    client->getTimerElapsedSeconds("boot");
    EXPECT_EQ(lastRequest(), R"({"getTimerElapsed":"boot"})");
}

TEST_F(Operations, getTimerElapsedSecondsRoundsDown)
{
    answer("2999999");
    EXPECT_EQ(client->getTimerElapsedSeconds("boot"), 2U);
}

TEST_F(Operations, getTimerElapsedSecondsCountsAFullSecond)
{
    answer("3000000");
    EXPECT_EQ(client->getTimerElapsedSeconds("boot"), 3U);
}

TEST_F(Operations, getTimerLastStartedAsksAndReads)
{
    answer("1700000000123456");
    EXPECT_EQ(client->getTimerLastStarted("boot"), 1700000000123456U);
    EXPECT_EQ(lastRequest(), R"({"getTimerLastStarted":"boot"})");
}

TEST_F(Operations, getCounterValueAsksAndReads)
{
    answer("42");
    EXPECT_EQ(client->getCounterValue("c"), 42U);
    EXPECT_EQ(lastRequest(), R"({"getCounterValue":"c"})");
}

TEST_F(Operations, incrementCounterReturnsTheBrokersValue)
{
    answer("43");
    EXPECT_EQ(client->incrementCounter("c"), 43U);
    EXPECT_EQ(lastRequest(), R"({"incrementCounter":"c"})");
}

// Above 2147483647 a counter's value is whatever the standard conversion makes of it.
TEST_F(Operations, counterAbove31BitsIsReadAsAtoiDoes)
{
    for (const char* text : {"2147483647", "2147483648", "4294967295"})
    {
        answer(text);
        EXPECT_EQ(client->getCounterValue("c"), static_cast<uint32_t>(atoi(text))) << text;
    }
}

TEST_F(Operations, syncAsksWithTheBareWord)
{
    EXPECT_TRUE(client->sync(-1));
    EXPECT_EQ(broker.requests().back(), Frames{"Sync"});
    EXPECT_EQ(log.count(6, "Sending Sync on request socket and waiting for response"), 1U);
    EXPECT_EQ(log.count(6, "Received response [SyncAck] to Sync request"), 1U);
    EXPECT_EQ(log.count(7, "Successfully received SyncAck from StatusBroker"), 1U);
}

// --------------------------------------------------------------------------------------------- bad replies

// Replies that are no answer to a query for status values.
class BadReply : public Operations, public ::testing::WithParamInterface<Reply>
{
protected:
    BadReply() { answer(GetParam().text); }
    std::string parseFailure() const { return std::string("Failed to parse buf [") + GetParam().text + "]"; }
};

TEST_P(BadReply, getClientInfoIsEmpty)
{
    EXPECT_EQ(client->getClientInfo(), StatusMap{});
    EXPECT_EQ(log.texts(2), Texts{parseFailure()});
    expectLine(0, parseFailure(), getClientInfo);
}

TEST_P(BadReply, getClientInfoValuesIsEmpty)
{
    EXPECT_EQ(client->getClientInfoValues(StatusKeys{"a"}), StatusMap{});
    EXPECT_EQ(log.texts(2), Texts{parseFailure()});
    expectLine(0, parseFailure(), getClientInfoValues);
}

TEST_P(BadReply, nextQueryWorks)
{
    client->getClientInfo();
    answer(R"({"a":"1"})");
    EXPECT_EQ(client->getClientInfo(), (StatusMap{{"a", "1"}}));
}

TEST_P(BadReply, syncFails)
{
    EXPECT_FALSE(client->sync(-1));
    EXPECT_TRUE(log.has(6, std::string("Received response [") + GetParam().text + "] to Sync request"));
    EXPECT_TRUE(
        log.has(0, std::string("Received unexpected response [") + GetParam().text + "] to Sync request"));
}

INSTANTIATE_TEST_SUITE_P(Replies, BadReply,
                         ::testing::Values(Reply{"text", "no JSON"}, Reply{"array", "[1]"},
                                           Reply{"number", "5"}, Reply{"string", R"("text")"},
                                           Reply{"truncated", R"({"a":"1")"},
                                           Reply{"nestedObject", R"({"a":{"b":1}})"},
                                           Reply{"nestedArray", R"({"a":"1","b":[]})"}),
                         nameOf);

class BadValueReply : public Operations, public ::testing::WithParamInterface<Reply>
{
};

TEST_P(BadValueReply, getClientInfoValueIsEmpty)
{
    answer(GetParam().text);
    EXPECT_EQ(client->getClientInfoValue("k"), "");
    EXPECT_EQ(log.texts(2), Texts{std::string("Failed to parse buf [") + GetParam().text + "]"});
    expectLine(0, std::string("Failed to parse buf [") + GetParam().text + "]", getClientInfoValue);
}

INSTANTIATE_TEST_SUITE_P(Replies, BadValueReply,
                         ::testing::Values(Reply{"text", "no JSON"}, Reply{"array", "[1]"},
                                           Reply{"number", "5"}, Reply{"truncated", R"({"statusValue":"v")"},
                                           Reply{"nestedObject", R"({"statusValue":{"b":1}})"},
                                           Reply{"nestedArray", R"({"statusValue":[]})"}),
                         nameOf);

class ReplyWithoutMembers : public Operations, public ::testing::WithParamInterface<Reply>
{
protected:
    ReplyWithoutMembers() { answer(GetParam().text); }
};

TEST_P(ReplyWithoutMembers, isTheEmptyMapWithoutAFailure)
{
    EXPECT_EQ(client->getClientInfo(), StatusMap{});
    EXPECT_EQ(client->getClientInfoValues(StatusKeys{"a"}), StatusMap{});
    EXPECT_EQ(log.texts(2), Texts{});
    EXPECT_TRUE(log.has(7, "Received requested status value pairs for 0 status keys"));
}

TEST_P(ReplyWithoutMembers, isTheEmptyValueWithoutAFailure)
{
    EXPECT_EQ(client->getClientInfoValue("k"), "");
    EXPECT_EQ(log.texts(2), Texts{});
    EXPECT_TRUE(log.has(7, "Received requested status value, status[k] = value[]"));
}

INSTANTIATE_TEST_SUITE_P(Replies, ReplyWithoutMembers,
                         ::testing::Values(Reply{"null", "null"}, Reply{"emptyArray", "[]"},
                                           Reply{"emptyObject", "{}"}),
                         nameOf);

class NonNumericReply : public Operations, public ::testing::WithParamInterface<Reply>
{
protected:
    NonNumericReply() { answer(GetParam().text); }
    ~NonNumericReply() override { EXPECT_EQ(log.texts(2), Texts{}); }
};

TEST_P(NonNumericReply, getTimerElapsedIs0)
{
    EXPECT_EQ(client->getTimerElapsed("t"), 0U);
}

TEST_P(NonNumericReply, getTimerElapsedSecondsIs0)
{
    EXPECT_EQ(client->getTimerElapsedSeconds("t"), 0U);
}

TEST_P(NonNumericReply, getTimerLastStartedIs0)
{
    EXPECT_EQ(client->getTimerLastStarted("t"), 0U);
}

TEST_P(NonNumericReply, getCounterValueIs0)
{
    EXPECT_EQ(client->getCounterValue("c"), 0U);
}

TEST_P(NonNumericReply, incrementCounterIs0)
{
    EXPECT_EQ(client->incrementCounter("c"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Replies, NonNumericReply,
                         ::testing::Values(Reply{"emptyObject", "{}"}, Reply{"word", "none"},
                                           Reply{"quotedNumber", "\"5\""}, Reply{"blank", " "},
                                           Reply{"sign", "-"}),
                         nameOf);

class NearlySyncAck : public Operations, public ::testing::WithParamInterface<Reply>
{
};

TEST_P(NearlySyncAck, failsSync)
{
    answer(GetParam().text);
    EXPECT_FALSE(client->sync(-1));
    EXPECT_EQ(log.texts(2),
              Texts{std::string("Received unexpected response [") + GetParam().text + "] to Sync request"});
    EXPECT_FALSE(log.has(7, "Successfully received SyncAck from StatusBroker"));
}

INSTANTIATE_TEST_SUITE_P(Replies, NearlySyncAck,
                         ::testing::Values(Reply{"lowerCase", "syncack"}, Reply{"upperCase", "SYNCACK"},
                                           Reply{"trailingLineFeed", "SyncAck\n"},
                                           Reply{"leadingBlank", " SyncAck"}, Reply{"cutShort", "SyncAc"},
                                           Reply{"tooLong", "SyncAckk"}, Reply{"theRequest", "Sync"},
                                           Reply{"document", R"({"SyncAck":""})"},
                                           Reply{"quoted", R"("SyncAck")"}),
                         nameOf);

TEST_F(Operations, replyNestedTooDeepIsUnparsable)
{
    answer(std::string(100000, '['));
    EXPECT_EQ(client->getClientInfo(), StatusMap{});
    ASSERT_EQ(log.texts(2).size(), 1U);
    EXPECT_EQ(log.texts(2).front().substr(0, 24), "Failed to parse buf [[[[");
}

TEST_F(Operations, valueReplyNestedTooDeepIsUnparsable)
{
    answer(R"({"statusValue":)" + std::string(100000, '['));
    EXPECT_EQ(client->getClientInfoValue("k"), "");
    EXPECT_EQ(log.texts(2).size(), 1U);
}

TEST_F(Operations, syncAckBehindANulFailsSync)
{
    answer(std::string("SyncAck\0", 8));
    EXPECT_FALSE(client->sync(-1));
}

// ---------------------------------------------------------------------------- requests that do not succeed

// All attempts fail, as an empty frame is never a reply.
class FailedRequest : public Operations
{
protected:
    FailedRequest() { broker.answerWith(Frames{""}); }
    ~FailedRequest() override
    {
        EXPECT_EQ(log.texts(2).size(), 41U);
    } // two lines per attempt, and the operation's
};

TEST_F(FailedRequest, getClientInfoIsEmpty)
{
    EXPECT_EQ(client->getClientInfo(), StatusMap{});
    expectLine(0, "Failed to send getClientInfo request to StatusBroker", getClientInfo);
}

TEST_F(FailedRequest, getClientInfoValueIsEmpty)
{
    EXPECT_EQ(client->getClientInfoValue("k"), "");
    expectLine(0, "Failed to send getClientInfoValue [k] request to StatusBroker", getClientInfoValue);
}

TEST_F(FailedRequest, getClientInfoValuesIsEmpty)
{
    EXPECT_EQ(client->getClientInfoValues(StatusKeys{"k"}), StatusMap{});
    expectLine(0, "Failed to send getClientInfoValues request to StatusBroker", getClientInfoValues);
}

TEST_F(FailedRequest, getTimerElapsedIs0)
{
    EXPECT_EQ(client->getTimerElapsed("t"), 0U);
    expectLine(0, "Failed to send getTimerElapsed request to StatusBroker", getTimerElapsed);
}

TEST_F(FailedRequest, getTimerElapsedSecondsIs0)
{
    EXPECT_EQ(client->getTimerElapsedSeconds("t"), 0U);
    expectLine(0, "Failed to send getTimerElapsed request to StatusBroker", getTimerElapsed);
}

TEST_F(FailedRequest, getTimerLastStartedIs0)
{
    EXPECT_EQ(client->getTimerLastStarted("t"), 0U);
    expectLine(0, "Failed to send getTimerLastStarted request to StatusBroker", getTimerLastStarted);
}

TEST_F(FailedRequest, getCounterValueIs0)
{
    EXPECT_EQ(client->getCounterValue("c"), 0U);
    expectLine(0, "Failed to send getCounterValue request to StatusBroker", getCounterValue);
}

TEST_F(FailedRequest, incrementCounterIs0)
{
    EXPECT_EQ(client->incrementCounter("c"), 0U);
    expectLine(0, "Failed to send incrementCounter request to StatusBroker", incrementCounter);
}

TEST_F(FailedRequest, syncIsFalse)
{
    EXPECT_FALSE(client->sync(-1));
    expectLine(0, "Failed to send Sync request to StatusBroker", sync);
}

// ----------------------------------------------------------------------------- who waits, and who does not

// Keeps the manager's thread busy for as long as it lives.
class BusyManager
{
public:
    explicit BusyManager(TestProxy& proxy)
    {
        proxy.queueOnManagerThread(
            [this]
            {
                mEntered.open();
                mRelease.wait();
                mLeft.open();
            });
        mEntered.wait();
    }

    ~BusyManager() { release(); }

    void release()
    {
        mRelease.open();
        mLeft.wait();
    }

private:
    Gate mEntered;
    Gate mRelease;
    Gate mLeft;
};

class Marshalling : public Operations
{
protected:
    // A call that returns while the manager's thread is busy has not done its work yet.
    void expectReturnsAtOnce(const std::function<void()>& call, const std::string& post)
    {
        BusyManager busy(*client);
        call();
        EXPECT_EQ(broker.posts(), std::vector<Frames>{});
        busy.release();
        EXPECT_TRUE(broker.waitForPost(post));
    }

    // A call that waits is still under way when its request has reached a silent broker.
    template <class Call>
    void expectWaitsForReply(Call call, const std::string& reply)
    {
        broker.keepSilent();
        const std::size_t before = broker.requests().size();
        auto result = std::async(std::launch::async, call);
        EXPECT_TRUE(broker.waitForRequests(before + 1));
        EXPECT_EQ(result.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
        broker.reply({reply});
        EXPECT_EQ(result.wait_for(testDeadline), std::future_status::ready);
    }
};

TEST_F(Marshalling, postStatusReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postStatus(StatusMap{{"a", "1"}}); }, R"({"postStatus":{"a":"1"}})");
}

TEST_F(Marshalling, postStatusOfOnePairReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postStatus("a", "1"); }, R"({"postStatus":{"a":"1"}})");
}

TEST_F(Marshalling, resetStatusReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->resetStatus(StatusKeys{"a"}); }, R"({"resetStatus":["a"]})");
}

TEST_F(Marshalling, resetStatusOfOneKeyReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->resetStatus("a"); }, R"({"resetStatus":["a"]})");
}

TEST_F(Marshalling, postEventReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postEvent("e", "v", 0); }, R"({"postEvent":{"e":"v"}})");
}

TEST_F(Marshalling, delayedPostEventReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postEvent("e", "v", 1); }, R"({"postEvent":{"e":"v"}})");
}

TEST_F(Marshalling, startTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->startTimer("t"); }, R"({"startTimer":"t"})");
}

TEST_F(Marshalling, stopTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->stopTimer("t"); }, R"({"stopTimer":"t"})");
}

TEST_F(Marshalling, resetTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->resetTimer("t"); }, R"({"resetTimer":"t"})");
}

TEST_F(Marshalling, restartTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->restartTimer("t"); }, R"({"restartTimer":"t"})");
}

TEST_F(Marshalling, setCounterValueReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->setCounterValue("c", 1); }, R"({"setCounterValue":{"c":1}})");
}

TEST_F(Marshalling, updateSystemTimeReturnsAfterThePostWasHandedOver)
{
    auto busy = std::make_unique<BusyManager>(*client);
    auto done = std::async(std::launch::async,
                           [&]
                           {
                               client->updateSystemTime(5);
                               return log.has(6, R"(Sending post message [{"updateSystemTime":5}])");
                           });
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    busy.reset();
    EXPECT_TRUE(done.get());
    EXPECT_TRUE(broker.waitForPost(R"({"updateSystemTime":5})"));
}

TEST_F(Marshalling, getClientInfoWaits)
{
    expectWaitsForReply([&] { return client->getClientInfo(); }, "{}");
}

TEST_F(Marshalling, getClientInfoValueWaits)
{
    expectWaitsForReply([&] { return client->getClientInfoValue("k"); }, "{}");
}

TEST_F(Marshalling, getClientInfoValuesWaits)
{
    expectWaitsForReply([&] { return client->getClientInfoValues(StatusKeys{"k"}); }, "{}");
}

TEST_F(Marshalling, getTimerElapsedWaits)
{
    expectWaitsForReply([&] { return client->getTimerElapsed("t"); }, "1");
}

TEST_F(Marshalling, getTimerElapsedSecondsWaits)
{
    expectWaitsForReply([&] { return client->getTimerElapsedSeconds("t"); }, "1");
}

TEST_F(Marshalling, getTimerLastStartedWaits)
{
    expectWaitsForReply([&] { return client->getTimerLastStarted("t"); }, "1");
}

TEST_F(Marshalling, getCounterValueWaits)
{
    expectWaitsForReply([&] { return client->getCounterValue("c"); }, "1");
}

TEST_F(Marshalling, incrementCounterWaits)
{
    expectWaitsForReply([&] { return client->incrementCounter("c"); }, "1");
}

TEST_F(Marshalling, syncWaits)
{
    expectWaitsForReply([&] { return client->sync(-1); }, "SyncAck");
}

TEST_F(Marshalling, queriesOfManyThreadsAreAnsweredOneByOne)
{
    broker.answerWith([](const std::string& request)
                      { return Frames{R"({"statusValue":)" + request.substr(22)}; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (int i = 0; i < 50; ++i)
                {
                    const std::string key = std::to_string(t) + "/" + std::to_string(i);
                    EXPECT_EQ(client->getClientInfoValue(key), key);
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(log.texts(2), Texts{});
}

TEST_F(Marshalling, operationsOnTheManagersThreadRunInPlace)
{
    client->onManagerThread(
        [&]
        {
            EXPECT_TRUE(client->sync(-1));
            EXPECT_EQ(client->getClientInfo(), StatusMap{});
            client->startTimer("t");
            client->updateSystemTime(1);
            EXPECT_TRUE(log.has(6, R"(Sending post message [{"startTimer":"t"}])"));
            EXPECT_TRUE(log.has(6, R"(Sending post message [{"updateSystemTime":1}])"));
        });
}

TEST_F(Marshalling, queryFollowsThePostsMadeBefore)
{
    client->startTimer("t");
    client->getTimerElapsed("t");
    const Texts texts = log.texts(6);
    const auto post = std::find(texts.begin(), texts.end(), R"(Sending post message [{"startTimer":"t"}])");
    const auto request =
        std::find(texts.begin(), texts.end(), R"(Sending request message [{"getTimerElapsed":"t"}])");
    EXPECT_NE(request, texts.end());
    EXPECT_LT(post, request);
}

TEST_F(Marshalling, operationIsTracedOnceOnTheManagersThread)
{
    ov_log_configure("*=7:40000000");
    log.clear();
    client->startTimer("t");
    client->drain();
    std::vector<std::thread::id> traces;
    for (const LogLine& line : log.lines())
    {
        if (line.function == "virtual void StatusManagerProxy::startTimer(std::string)" &&
            line.text == "begin")
            traces.push_back(line.thread);
    }
    std::thread::id manager;
    client->onManagerThread([&] { manager = std::this_thread::get_id(); });
    EXPECT_EQ(traces, std::vector<std::thread::id>{manager});
}

// ------------------------------------------------------------------------------------------ delayed events

TEST_F(Operations, eventFromAnotherThreadIsPostedWhenItsDelayHasPassed)
{
    const auto start = Clock::now();
    client->postEvent("a", "1", 500);
    ASSERT_TRUE(broker.waitForPost(R"({"postEvent":{"a":"1"}})"));
    EXPECT_GE(broker.lastPostTime() - start, std::chrono::milliseconds(500));
}

TEST_F(Operations, delayOfAnEventIsIgnoredOnTheManagersThread)
{
    client->onManagerThread(
        [&]
        {
            client->postEvent("a", "1", 3600000);
            EXPECT_TRUE(log.has(6, R"(Sending post message [{"postEvent":{"a":"1"}}])"));
        });
    EXPECT_TRUE(broker.waitForPost(R"({"postEvent":{"a":"1"}})"));
}

TEST_F(Operations, delayedEventIsOvertakenByLaterPosts)
{
    client->postEvent("late", "1", 50);
    client->postEvent("early", "2", 0);
    ASSERT_TRUE(broker.waitForPosts(2));
    EXPECT_EQ(broker.posts(),
              (std::vector<Frames>{{R"({"postEvent":{"early":"2"}})"}, {R"({"postEvent":{"late":"1"}})"}}));
}

TEST_F(Operations, delayedEventsDoNotOutliveTheirClient)
{
    client->postEvent("late", "1", 3600000);
    client.destroy();
    EXPECT_EQ(broker.posts(), std::vector<Frames>{});
}

// ----------------------------------------------------------------------------------------------- listeners

TEST_F(Operations, firstCallbackHoldsTheBrokersValues)
{
    answer(R"({"a":"1","b":"2"})");
    RecordingListener listener;
    Orvane::EventThread thread("listener", 0);
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "a");
    ASSERT_TRUE(listener.waitForUpdates(1));
    EXPECT_EQ(listener.updates(), (std::vector<StatusMap>{{{"a", "1"}}}));
    client->unregisterListener(&listener);
}

} // namespace
