// The agents that carry the broker client's operations to its two threads.

#include <functional>
#include <gtest/gtest.h>
#include <ostream>

#include "tests/proxy/TestProxy.h"
#include "tests/support/AgentTypes.h"
#include "tests/support/SentAgents.h"

using namespace Orvane;

namespace
{

// Makes the operations that start and end a client public.
class OpenProxy : public TestProxy
{
public:
    using StatusManagerProxy::initSockets;
    using StatusManagerProxy::processStatusMessages;
};

using P = StatusManagerProxy;

using NameQueued = AsyncEventAgent1<P, std::string>;
using MapQueued = AsyncEventAgent1<P, StatusMap>;
using KeysQueued = AsyncEventAgent1<P, StatusKeys>;
using CounterQueued = AsyncEventAgent2<P, std::string, unsigned int>;
using EventQueued = AsyncEventAgent3<P, std::string, std::string, unsigned int>;
using LoopQueued = AsyncEventAgent1<P, void*>;
using Plain = SyncEventAgent0<P>;
using Time = SyncEventAgent1<P, unsigned int>;
using AllValues = SyncRetEventAgent0<P, StatusMap>;
using OneValue = SyncRetEventAgent1<P, std::string, const std::string&>;
using SomeValues = SyncRetEventAgent1<P, StatusMap, const StatusKeys&>;
using TimerQuery = SyncRetEventAgent1<P, uint64_t, const std::string&>;
using CounterQuery = SyncRetEventAgent1<P, unsigned int, const std::string&>;
using Barrier = SyncRetEventAgent1<P, bool, int>;

static_assert(isPosted<NameQueued>(&P::startTimer));
static_assert(isPosted<NameQueued>(&P::stopTimer));
static_assert(isPosted<NameQueued>(&P::resetTimer));
static_assert(isPosted<NameQueued>(&P::restartTimer));
static_assert(isPosted<MapQueued>(overload<StatusMap>(&P::postStatus)));
static_assert(isPosted<KeysQueued>(overload<StatusKeys>(&P::resetStatus)));
static_assert(isPosted<CounterQueued>(&P::setCounterValue));
static_assert(isPosted<EventQueued>(&P::postEvent));
static_assert(isPosted<LoopQueued>(&OpenProxy::processStatusMessages));
static_assert(isAwaited<Plain>(&OpenProxy::initSockets));
static_assert(isAwaited<Plain>(&OpenProxy::shutdown));
static_assert(isAwaited<Time>(&P::updateSystemTime));
static_assert(isAsked<AllValues>(&P::getClientInfo));
static_assert(isAsked<OneValue>(&P::getClientInfoValue));
static_assert(isAsked<SomeValues>(&P::getClientInfoValues));
static_assert(isAsked<TimerQuery>(&P::getTimerElapsed));
static_assert(isAsked<TimerQuery>(&P::getTimerLastStarted));
static_assert(isAsked<CounterQuery>(&P::getCounterValue));
static_assert(isAsked<CounterQuery>(&P::incrementCounter));
static_assert(isAsked<Barrier>(&P::sync));

struct Row
{
    std::string agent;
    const char* name;
    std::function<void(StatusManagerProxy&)> call;
};

void PrintTo(const Row& row, std::ostream* stream)
{
    *stream << row.name;
}

template <class Agent>
Row row(const char* name, std::function<void(StatusManagerProxy&)> call)
{
    return {SentAgents::nameOf<Agent>(), name, std::move(call)};
}

const std::vector<Row> rows{
    row<NameQueued>("startTimer", [](P& p) { p.startTimer("t"); }),
    row<NameQueued>("stopTimer", [](P& p) { p.stopTimer("t"); }),
    row<NameQueued>("resetTimer", [](P& p) { p.resetTimer("t"); }),
    row<NameQueued>("restartTimer", [](P& p) { p.restartTimer("t"); }),
    row<MapQueued>("postStatus", [](P& p) { p.postStatus(StatusMap()); }),
    row<KeysQueued>("resetStatus", [](P& p) { p.resetStatus(StatusKeys()); }),
    row<CounterQueued>("setCounterValue", [](P& p) { p.setCounterValue("c", 1); }),
    row<EventQueued>("postEvent", [](P& p) { p.postEvent("e", "v", 0); }),
    row<EventQueued>("delayedPostEvent", [](P& p) { p.postEvent("e", "v", 1); }),
    row<Time>("updateSystemTime", [](P& p) { p.updateSystemTime(1); }),
    row<AllValues>("getClientInfo", [](P& p) { p.getClientInfo(); }),
    row<OneValue>("getClientInfoValue", [](P& p) { p.getClientInfoValue("k"); }),
    row<SomeValues>("getClientInfoValues", [](P& p) { p.getClientInfoValues({"k"}); }),
    row<TimerQuery>("getTimerElapsed", [](P& p) { p.getTimerElapsed("t"); }),
    row<TimerQuery>("getTimerLastStarted", [](P& p) { p.getTimerLastStarted("t"); }),
    row<CounterQuery>("getCounterValue", [](P& p) { p.getCounterValue("c"); }),
    row<CounterQuery>("incrementCounter", [](P& p) { p.incrementCounter("c"); }),
    row<Barrier>("sync", [](P& p) { p.sync(-1); }),
};

using Names = std::vector<std::string>;

class ProxyAgents : public testing::TestWithParam<Row>
{
};

} // namespace

TEST_P(ProxyAgents, offTheManagersThreadAnOperationSendsOneAgentOfItsType)
{
    ScriptedBroker broker;
    const Client client(broker);
    EXPECT_EQ(SentAgents::of([&] { GetParam().call(*client); }), Names{GetParam().agent});
}

INSTANTIATE_TEST_SUITE_P(Operations, ProxyAgents, testing::ValuesIn(rows),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST(ProxyLifeAgents, aClientIsSetUpAndShutDownByTheirTypes)
{
    ScriptedBroker broker;
    std::unique_ptr<OpenProxy> proxy;
    EXPECT_EQ(SentAgents::of([&] { proxy = std::make_unique<OpenProxy>(); }),
              Names{SentAgents::nameOf<Plain>()});
    const Pulse pulse(broker);
    EXPECT_EQ(SentAgents::of([&] { proxy->shutdown(); }), Names{SentAgents::nameOf<Plain>()});
}

TEST(ProxyLifeAgents, theNotifyLoopIsQueuedByItsType)
{
    ScriptedBroker broker;
    OpenProxy proxy;
    {
        const Pulse pulse(broker);
        proxy.shutdown();
    }
    proxy.mNotifyThread.stop(); // prevents a second notify loop
    EXPECT_EQ(SentAgents::of([&] { proxy.processStatusMessages(nullptr); }),
              Names{SentAgents::nameOf<LoopQueued>()});
}
