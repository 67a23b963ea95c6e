// Invalid replies, and failing requests.

#include "tests/proxy/OperationsFixture.h"

namespace
{

// --------------------------------------------------------------------------------------------- bad replies

// Replies that do not answer a query for status values.
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

// All attempts fail, because an empty frame is never a reply.
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

} // namespace
