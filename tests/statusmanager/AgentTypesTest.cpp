// The agents that carry the local manager's operations to its thread and its listeners. Programs that are
// built separately from the library rely on their types.

#include <gtest/gtest.h>
#include <ostream>

#include "tests/statusmanager/TestManager.h"
#include "tests/support/AgentTypes.h"
#include "tests/support/RecordingListener.h"
#include "tests/support/SentAgents.h"

using namespace Orvane;

namespace
{

using M = StatusManager;
using L = IStatusUpdateListener;

using NameQueued = AsyncEventAgent1<M, std::string>;
using MapQueued = AsyncEventAgent1<M, StatusMap>;
using KeysQueued = AsyncEventAgent1<M, StatusKeys>;
using PairQueued = AsyncEventAgent2<M, std::string, std::string>;
using CounterQueued = AsyncEventAgent2<M, std::string, unsigned int>;
using RegistrationQueued = AsyncEventAgent2<M, L*, EventDispatcher*>;
using SubscriptionQueued = AsyncEventAgent2<M, L*, StatusKeys>;
using StatusCallback = AsyncEventAgent1<L, StatusMap>;
using EventCallback = AsyncEventAgent2<L, std::string, std::string>;
using Plain = SyncEventAgent0<M>;
using Time = SyncEventAgent1<M, unsigned int>;
using Unsubscription = SyncEventAgent2<M, L*, const StatusKeys&>;
using AllValues = SyncRetEventAgent0<M, StatusMap>;
using OneValue = SyncRetEventAgent1<M, std::string, const std::string&>;
using SomeValues = SyncRetEventAgent1<M, StatusMap, const StatusKeys&>;
using TimerQuery = SyncRetEventAgent1<M, uint64_t, const std::string&>;
using CounterQuery = SyncRetEventAgent1<M, unsigned int, const std::string&>;
using Unregistration = SyncRetEventAgent1<M, EventDispatcher*, L*>;
using Barrier = SyncRetEventAgent1<M, bool, int>;

static_assert(isPosted<NameQueued>(&M::startTimer));
static_assert(isPosted<NameQueued>(&M::stopTimer));
static_assert(isPosted<NameQueued>(&M::resetTimer));
static_assert(isPosted<NameQueued>(&M::restartTimer));
static_assert(isPosted<NameQueued>(overload<std::string>(&M::resetStatus)));
static_assert(isPosted<MapQueued>(overload<StatusMap>(&M::postStatus)));
static_assert(isPosted<MapQueued>(&TestManager::handleStatusUpdate));
static_assert(isPosted<KeysQueued>(overload<StatusKeys>(&M::resetStatus)));
static_assert(isPosted<PairQueued>(overload<std::string, std::string>(&M::postStatus)));
static_assert(isPosted<PairQueued>(&TestManager::handleEventUpdate));
static_assert(isPosted<CounterQueued>(&M::setCounterValue));
static_assert(isPosted<RegistrationQueued>(&M::registerListener));
static_assert(isPosted<SubscriptionQueued>(overload<L*, StatusKeys>(&M::registerForStatus)));
static_assert(isPosted<SubscriptionQueued>(overload<L*, EventKeys>(&M::registerForEvent)));
static_assert(isPosted<StatusCallback>(&L::onStatusUpdate));
static_assert(isPosted<EventCallback>(&L::onEventUpdate));
static_assert(isAwaited<Plain>(&TestManager::clearInfo));
static_assert(isAwaited<Time>(&M::updateSystemTime));
static_assert(isAwaited<Unsubscription>(overload<L*, const StatusKeys&>(&M::unregisterForStatus)));
static_assert(isAwaited<Unsubscription>(overload<L*, const EventKeys&>(&M::unregisterForEvent)));
static_assert(isAsked<AllValues>(&M::getClientInfo));
static_assert(isAsked<OneValue>(&M::getClientInfoValue));
static_assert(isAsked<SomeValues>(&M::getClientInfoValues));
static_assert(isAsked<TimerQuery>(&M::getTimerElapsed));
static_assert(isAsked<TimerQuery>(&M::getTimerElapsedSeconds));
static_assert(isAsked<TimerQuery>(&M::getTimerLastStarted));
static_assert(isAsked<CounterQuery>(&M::getCounterValue));
static_assert(isAsked<CounterQuery>(&M::incrementCounter));
static_assert(isAsked<Unregistration>(&TestManager::unregisterListenerHelper));
static_assert(isAsked<Barrier>(&M::sync));

struct Row
{
    std::string agent;
    const char* name;
    std::function<void(TestManager&)> call;
};

void PrintTo(const Row& row, std::ostream* stream)
{
    *stream << row.name;
}

template <class Agent>
Row row(const char* name, std::function<void(TestManager&)> call)
{
    return {SentAgents::nameOf<Agent>(), name, std::move(call)};
}

const std::vector<Row> rows{
    row<NameQueued>("startTimer", [](TestManager& m) { m.startTimer("t"); }),
    row<NameQueued>("stopTimer", [](TestManager& m) { m.stopTimer("t"); }),
    row<NameQueued>("resetTimer", [](TestManager& m) { m.resetTimer("t"); }),
    row<NameQueued>("restartTimer", [](TestManager& m) { m.restartTimer("t"); }),
    row<NameQueued>("resetStatusOfOneKey", [](TestManager& m) { m.resetStatus("k"); }),
    row<MapQueued>("postStatus", [](TestManager& m) { m.postStatus(StatusMap()); }),
    row<MapQueued>("handleStatusUpdate", [](TestManager& m) { m.handleStatusUpdate(StatusMap()); }),
    row<KeysQueued>("resetStatus", [](TestManager& m) { m.resetStatus(StatusKeys()); }),
    row<PairQueued>("postStatusOfOnePair", [](TestManager& m) { m.postStatus("k", "v"); }),
    row<PairQueued>("handleEventUpdate", [](TestManager& m) { m.handleEventUpdate("e", "v"); }),
    row<PairQueued>("postEvent", [](TestManager& m) { m.postEvent("e", "v", 5); }),
    row<CounterQueued>("setCounterValue", [](TestManager& m) { m.setCounterValue("c", 1); }),
    row<RegistrationQueued>("registerListener", [](TestManager& m) { m.registerListener(nullptr, nullptr); }),
    row<SubscriptionQueued>("registerForStatus",
                            [](TestManager& m) { m.registerForStatus(nullptr, StatusKeys()); }),
    row<SubscriptionQueued>("registerForStatusOfOneKey",
                            [](TestManager& m) { m.registerForStatus(nullptr, "k"); }),
    row<SubscriptionQueued>("registerForEvent",
                            [](TestManager& m) { m.registerForEvent(nullptr, EventKeys()); }),
    row<SubscriptionQueued>("registerForEventOfOneName",
                            [](TestManager& m) { m.registerForEvent(nullptr, "e"); }),
    row<Plain>("clearInfo", [](TestManager& m) { m.clearInfo(); }),
    row<Time>("updateSystemTime", [](TestManager& m) { m.updateSystemTime(1); }),
    row<Unsubscription>("unregisterForStatus",
                        [](TestManager& m) { m.unregisterForStatus(nullptr, StatusKeys()); }),
    row<Unsubscription>("unregisterForStatusOfOneKey",
                        [](TestManager& m) { m.unregisterForStatus(nullptr, "k"); }),
    row<Unsubscription>("unregisterForEvent",
                        [](TestManager& m) { m.unregisterForEvent(nullptr, EventKeys()); }),
    row<Unsubscription>("unregisterForEventOfOneName",
                        [](TestManager& m) { m.unregisterForEvent(nullptr, "e"); }),
    row<AllValues>("getClientInfo", [](TestManager& m) { m.getClientInfo(); }),
    row<OneValue>("getClientInfoValue", [](TestManager& m) { m.getClientInfoValue("k"); }),
    row<SomeValues>("getClientInfoValues", [](TestManager& m) { m.getClientInfoValues({"k"}); }),
    row<TimerQuery>("getTimerElapsed", [](TestManager& m) { m.getTimerElapsed("t"); }),
    row<TimerQuery>("getTimerElapsedSeconds", [](TestManager& m) { m.getTimerElapsedSeconds("t"); }),
    row<TimerQuery>("getTimerLastStarted", [](TestManager& m) { m.getTimerLastStarted("t"); }),
    row<CounterQuery>("getCounterValue", [](TestManager& m) { m.getCounterValue("c"); }),
    row<CounterQuery>("incrementCounter", [](TestManager& m) { m.incrementCounter("c"); }),
    row<Unregistration>("unregisterListener", [](TestManager& m) { m.unregisterListener(nullptr); }),
    row<Barrier>("sync", [](TestManager& m) { m.sync(-1); }),
};

using Names = std::vector<std::string>;

class AgentTypes : public testing::TestWithParam<Row>
{
};

} // namespace

TEST_P(AgentTypes, offTheManagersThreadAnOperationSendsOneAgentOfItsType)
{
    TestManager manager;
    EXPECT_EQ(SentAgents::of([&] { GetParam().call(manager); }), Names{GetParam().agent});
    manager.onThread([] {}); // no call may run while only the base class is left
}

INSTANTIATE_TEST_SUITE_P(Operations, AgentTypes, testing::ValuesIn(rows),
                         [](const auto& instance) { return std::string(instance.param.name); });

class CallbackTypes : public testing::Test
{
protected:
    CallbackTypes()
    {
        manager.registerListener(&listener, &thread);
        manager.registerForStatus(&listener, "k");
        manager.registerForEvent(&listener, "e");
    }
    ~CallbackTypes() override { manager.unregisterListener(&listener); }

    // The types of the agents that the manager's thread sends during `work`.
    Names sentByManager(const std::function<void()>& work)
    {
        Names sent;
        manager.onThread([&] { sent = SentAgents::of(work); });
        return sent;
    }

    RecordingListener listener;
    EventThread thread{"listener", 0};
    TestManager manager;
};

TEST_F(CallbackTypes, aStatusUpdateReachesAListenerByItsType)
{
    EXPECT_EQ(sentByManager([&] { manager.postStatus("k", "v"); }),
              Names{SentAgents::nameOf<StatusCallback>()});
}

TEST_F(CallbackTypes, theFirstCallbackIsAStatusUpdateLikeOthers)
{
    EXPECT_EQ(sentByManager([&] { manager.registerForStatus(&listener, "other"); }),
              Names{SentAgents::nameOf<StatusCallback>()});
}

TEST_F(CallbackTypes, anEventReachesAListenerByItsType)
{
    EXPECT_EQ(sentByManager([&] { manager.postEvent("e", "v", 0); }),
              Names{SentAgents::nameOf<EventCallback>()});
}
