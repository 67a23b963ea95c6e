#ifndef TESTS_PROXY_OPERATIONSFIXTURE_H
#define TESTS_PROXY_OPERATIONSFIXTURE_H

#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/LogCapture.h"

/// Helpers for the tests of the operations.

using Texts = std::vector<std::string>;

/// A reply, and its name in tests.
struct Reply
{
    const char* name;
    const char* text;
};

inline void PrintTo(const Reply& reply, std::ostream* stream)
{
    *stream << reply.name;
}

inline std::string nameOf(const ::testing::TestParamInfo<Reply>& reply)
{
    return reply.param.name;
}

/// A client of a scripted broker, with its log captured.
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

    // Expects exactly one such line, with the signature of this operation.
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

    // Signatures as they appear in the log.
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

#endif
