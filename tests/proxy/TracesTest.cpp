// The trace scopes of the broker client's operations, and of the transport inside them.

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <ostream>

#include "tests/proxy/TestProxy.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TraceLines.h"

namespace
{

using By = TraceLine::By;

const char* const tracesOfTheClient = "StatusManagerProxy=7:40000000";

const std::string receiveOnSocket = "bool StatusManagerProxy::receiveOnSocket(void*, std::string&)";
const std::string processStatusMessages = "void StatusManagerProxy::processStatusMessages(void*)";

const TraceLines sendLines = scope("bool StatusManagerProxy::sendOnSocket(void*, const string&)");
const TraceLines postLines = scope("void StatusManagerProxy::sendPost(std::string)", sendLines);
const TraceLines requestLines =
    scope("bool StatusManagerProxy::sendRequest(const string&, std::string&, int)",
          inARow({sendLines, scope(receiveOnSocket)}));
const TraceLines syncLines = scope("virtual bool StatusManagerProxy::sync(int)", requestLines);

struct Operation
{
    const char* name;
    std::function<void(TestProxy&)> call;
    TraceLines lines;
};

void PrintTo(const Operation& operation, std::ostream* stream)
{
    *stream << operation.name;
}

std::string nameOf(const testing::TestParamInfo<Operation>& info)
{
    return info.param.name;
}

const std::vector<Operation> operations{
    {"updateSystemTime", [](TestProxy& proxy) { proxy.updateSystemTime(1); },
     scope("virtual void StatusManagerProxy::updateSystemTime(uint32_t)", postLines)},
    {"postStatus",
     [](TestProxy& proxy) {
         proxy.postStatus(StatusMap{{"k", "v"}});
     },
     scope("virtual void StatusManagerProxy::postStatus(StatusMap)", postLines)},
    {"resetStatus", [](TestProxy& proxy) { proxy.resetStatus(StatusKeys{"k"}); },
     scope("virtual void StatusManagerProxy::resetStatus(StatusKeys)", postLines)},
    {"postEvent", [](TestProxy& proxy) { proxy.postEvent("e", "v", 0); },
     scope("virtual void StatusManagerProxy::postEvent(std::string, std::string, uint32_t)", postLines)},
    {"startTimer", [](TestProxy& proxy) { proxy.startTimer("t"); },
     scope("virtual void StatusManagerProxy::startTimer(std::string)", postLines)},
    {"stopTimer", [](TestProxy& proxy) { proxy.stopTimer("t"); },
     scope("virtual void StatusManagerProxy::stopTimer(std::string)", postLines)},
    {"resetTimer", [](TestProxy& proxy) { proxy.resetTimer("t"); },
     scope("virtual void StatusManagerProxy::resetTimer(std::string)", postLines)},
    {"restartTimer", [](TestProxy& proxy) { proxy.restartTimer("t"); },
     scope("virtual void StatusManagerProxy::restartTimer(std::string)", postLines)},
    {"setCounterValue", [](TestProxy& proxy) { proxy.setCounterValue("c", 1); },
     scope("virtual void StatusManagerProxy::setCounterValue(std::string, uint32_t)", postLines)},
    {"getClientInfo", [](TestProxy& proxy) { proxy.getClientInfo(); },
     scope("virtual StatusMap StatusManagerProxy::getClientInfo()", requestLines)},
    {"getClientInfoValue", [](TestProxy& proxy) { proxy.getClientInfoValue("k"); },
     scope("virtual std::string StatusManagerProxy::getClientInfoValue(const string&)", requestLines)},
    {"getClientInfoValues", [](TestProxy& proxy) { proxy.getClientInfoValues({"k"}); },
     scope("virtual StatusMap StatusManagerProxy::getClientInfoValues(const StatusKeys&)", requestLines)},
    {"getTimerElapsed", [](TestProxy& proxy) { proxy.getTimerElapsed("t"); },
     scope("virtual uint64_t StatusManagerProxy::getTimerElapsed(const string&)", requestLines)},
    {"getTimerLastStarted", [](TestProxy& proxy) { proxy.getTimerLastStarted("t"); },
     scope("virtual uint64_t StatusManagerProxy::getTimerLastStarted(const string&)", requestLines)},
    {"getCounterValue", [](TestProxy& proxy) { proxy.getCounterValue("c"); },
     scope("virtual uint32_t StatusManagerProxy::getCounterValue(const string&)", requestLines)},
    {"incrementCounter", [](TestProxy& proxy) { proxy.incrementCounter("c"); },
     scope("virtual uint32_t StatusManagerProxy::incrementCounter(const string&)", requestLines)},
    {"sync", [](TestProxy& proxy) { proxy.sync(-1); }, syncLines},
};

// The thread that runs the notify loop, once it has started.
std::thread::id notifyThread(const LogCapture& log)
{
    std::thread::id thread;
    EXPECT_TRUE(eventually(
        [&]
        {
            for (const LogLine& line : log.lines())
            {
                if (line.function == processStatusMessages)
                    thread = line.thread;
            }
            return thread != std::thread::id();
        }));
    return thread;
}

std::thread::id managersThread(const Client& client)
{
    std::thread::id thread;
    client->onManagerThread([&] { thread = std::this_thread::get_id(); });
    return thread;
}

// Returns when the notify thread has logged this many lines.
bool waitForLinesOf(std::thread::id thread, std::size_t count, const LogCapture& log)
{
    return eventually([&] { return loggedOn(thread, By::NotifyThread, log).size() >= count; });
}

class Traced : public testing::TestWithParam<Operation>
{
protected:
    ScriptedBroker broker;
    Client client{broker};
    const std::thread::id manager = managersThread(client);
    const LogCapture log{tracesOfTheClient};
};

// A client from start to end.
class TracedLife : public testing::Test
{
protected:
    const LogCapture log{tracesOfTheClient};
    ScriptedBroker broker;
    Client client{broker};
    const std::thread::id caller = std::this_thread::get_id();
    const std::thread::id manager = managersThread(client);
    const std::thread::id notify = notifyThread(log);
};

} // namespace

TEST_P(Traced, logsExactlyItsLinesOnTheManagersThreadWhenItIsCalledFromAnother)
{
    GetParam().call(*client);
    client->drain();
    EXPECT_EQ(loggedOn(manager, By::Manager, log), GetParam().lines);
    EXPECT_EQ(loggedOn(std::this_thread::get_id(), By::Caller, log), TraceLines());
}

TEST_P(Traced, logsExactlyItsLinesWhenItIsCalledOnTheManagersThread)
{
    client->onManagerThread([this] { GetParam().call(*client); });
    EXPECT_EQ(loggedOn(manager, By::Manager, log), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(, Traced, testing::ValuesIn(operations), nameOf);

TEST_F(TracedLife, beginsWithTheConstructorAndTheSetUp)
{
    EXPECT_EQ(loggedOn(caller, By::Caller, log),
              scope("StatusManagerProxy::StatusManagerProxy()", {}, By::Caller, 6));
    EXPECT_EQ(loggedOn(manager, By::Manager, log),
              scope("void StatusManagerProxy::initSockets()", inARow({postLines, syncLines})));
}

TEST_F(TracedLife, hasAScopeForEachNotificationThatIsReceivedAndHandled)
{
    EXPECT_TRUE(broker.waitForSubscriber());
    ASSERT_TRUE(waitForLinesOf(notify, 2, log));
    broker.publish(R"({"eventUpdate":{"e":"v"}})");
    EXPECT_TRUE(waitForLinesOf(notify, 6, log));
    const TraceLine::By by = By::NotifyThread;
    EXPECT_EQ(loggedOn(notify, by, log),
              inARow({message(7, processStatusMessages, "begin", by), scope(receiveOnSocket, {}, by),
                      scope("void StatusManagerProxy::handleNotifyMessage(const string&)", {}, by),
                      message(7, receiveOnSocket, "begin", by)}));
}

TEST_F(TracedLife, endsWithTheLoopTheShutDownAndTheDestructor)
{
    const std::size_t begun = loggedOn(caller, By::Caller, log).size();
    client.destroy();
    TraceLines ofCaller = loggedOn(caller, By::Caller, log);
    ofCaller.erase(ofCaller.begin(), ofCaller.begin() + static_cast<std::ptrdiff_t>(begun));
    EXPECT_EQ(ofCaller, scope("virtual StatusManagerProxy::~StatusManagerProxy()", {}, By::Caller, 6));

    const TraceLine::By by = By::NotifyThread;
    const TraceLines ofNotify = loggedOn(notify, by, log);
    TraceLines received; // any number of "Sync" messages
    while (received.size() + 4 < ofNotify.size())
        received = inARow({received, scope(receiveOnSocket, {}, by)});
    EXPECT_EQ(ofNotify, inARow({scope(processStatusMessages, received, by),
                                scope("void StatusManagerProxy::shutdown()", {}, by)}));
}
