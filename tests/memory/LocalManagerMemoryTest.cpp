// The local manager's state and its listeners where memory runs out, operation by
// operation.

#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <tuple>

#include "statusmanager/StatusManagerStub.h"
#include "tests/memory/FailingMemory.h"
#include "tests/statusmanager/TestManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/RecordingListener.h"

using FailingMemory::Extent;
using FailingMemory::failEach;
using FailingMemory::Failure;
using FailingMemory::runsOut;
using FailingMemory::Spared;

namespace
{

using namespace std::string_literals;

class Manager : public TestManager
{
public:
    using StatusManager::mListeners;
};

// A name that takes memory of its own, as one of few or of many.
std::string name(const std::string& kind, unsigned number)
{
    return kind + " of a length that takes memory, " + std::to_string(number);
}

StatusKeys names(const std::string& kind, unsigned first, unsigned end)
{
    StatusKeys all;
    for (; first < end; ++first)
        all.push_back(name(kind, first));
    return all;
}

StatusMap values(unsigned first, unsigned end, const std::string& value)
{
    StatusMap all;
    for (const std::string& key : names("key", first, end))
        all[key] = name(value, 0);
    return all;
}

// A listener's record. Its address differs from world to world.
using Record = std::tuple<const void*, StatusKeys, EventKeys>;

// All that a manager keeps.
struct State
{
    StatusMap values;
    std::deque<Counter> counters;
    std::vector<std::string> timers;
    std::vector<Record> listeners;
    time_t clock = 0; // as it was set last

    friend bool operator==(const State& a, const State& b)
    {
        return a.values == b.values && a.counters == b.counters && a.timers == b.timers &&
               a.listeners == b.listeners && a.clock == b.clock;
    }

    friend std::ostream& operator<<(std::ostream& stream, const State& state)
    {
        return stream << testing::PrintToString(state.values) << testing::PrintToString(state.counters)
                      << testing::PrintToString(state.timers) << testing::PrintToString(state.listeners)
                      << state.clock;
    }
};

// A manager that has something of everything. Two listeners have subscribed to `keys` keys and events, a
// third to none, a fourth is not registered.
class World
{
public:
    explicit World(unsigned keyCount, const char* listenersThread = "listeners")
        : keys(keyCount), thread(listenersThread, 0)
    {
        FakeClock::reset();
        for (RecordingListener* each : {&first, &second, &third})
            manager.registerListener(each, &thread);
        manager.postStatus(values(0, keys, "old"));
        for (RecordingListener* each : {&first, &second})
        {
            manager.registerForStatus(each, names("key", 0, keys));
            manager.registerForEvent(each, names("event", 0, keys));
        }
        manager.startTimer(name("timer", 0));
        manager.setCounterValue(name("counter", 0), 1);
        settle();
    }

    ~World()
    {
        const Spared spared;
        manager.clearInfo(); // frees the listeners' records
        thread.stop();
    }

    // Keeps the listeners' thread busy until settle().
    void occupyListeners()
    {
        mGate.emplace();
        Gate occupied;
        using Agent = Orvane::AsyncEventAgent1<World, Gate*>;
        (OV_NEW Agent(this, &World::waitAtGate, &occupied))->send(&thread);
        occupied.wait();
    }

    // Returns when all is done and all listeners are told.
    void settle()
    {
        const Spared spared;
        if (mGate)
            mGate->open();
        manager.onThread([] {});
        (OV_NEW Orvane::SyncEventAgent0<World>(this, &World::nothing))->send(&thread);
    }

    State state()
    {
        State now;
        manager.onThread(
            [&]
            {
                now.values = manager.mStatusValues;
                now.counters = manager.mCounters;
                for (veskcommon::Stopwatch timer : manager.mTimers)
                    now.timers.push_back(timer.getName());
                for (const auto& [listener, info] : manager.mListeners)
                    now.listeners.emplace_back(inThis(listener), info->statusKeys, info->eventKeys);
                if (const auto setting = FakeClock::lastSetting())
                    now.clock = setting->time.tv_sec;
            });
        return now;
    }

    // The value that a listener takes for the present one.
    static std::string knownTo(const RecordingListener& listener, const std::string& key)
    {
        std::string value;
        for (const StatusMap& update : listener.updates())
        {
            const auto found = update.find(key);
            value = found == update.end() ? value : found->second;
        }
        return value;
    }

    // All listeners know what is stored of what they subscribed to.
    void expectAllTold()
    {
        const State now = state();
        for (RecordingListener* listener : {&first, &second, &third, &fourth})
            for (const auto& [address, statusKeys, eventKeys] : now.listeners)
                for (const std::string& key : address == inThis(listener) ? statusKeys : StatusKeys())
                    EXPECT_EQ(knownTo(*listener, key), now.values.count(key) == 0 ? "" : now.values.at(key));
    }

    const unsigned keys;
    RecordingListener first; // these stand in the order of their addresses
    RecordingListener second;
    RecordingListener third;
    RecordingListener fourth;
    Orvane::EventThread thread;
    Manager manager;

private:
    void nothing() {}

    void waitAtGate(Gate* occupied)
    {
        occupied->open();
        mGate->wait();
    }

    std::optional<Gate> mGate;

    const void* inThis(const IStatusUpdateListener* listener) const
    {
        return reinterpret_cast<const void*>(reinterpret_cast<const char*>(listener) -
                                             reinterpret_cast<const char*>(this));
    }
};

// One of the manager's operations, and its result if it has one. It may be called twice.
struct Operation
{
    const char* name;
    std::string (*call)(World&);
};

std::string shown(const StatusMap& map)
{
    const Spared spared;
    return testing::PrintToString(map);
}

const Operation operations[]{
    {"updateSystemTime", [](World& world) { return world.manager.updateSystemTime(1800000000), ""s; }},
    {"getClientInfo", [](World& world) { return shown(world.manager.getClientInfo()); }},
    {"getClientInfoValue", [](World& world) { return world.manager.getClientInfoValue(name("key", 0)); }},
    {"getClientInfoValues",
     [](World& world) { return shown(world.manager.getClientInfoValues(names("key", 0, world.keys))); }},
    {"startTimer", [](World& world) { return world.manager.startTimer(name("timer", 1)), ""s; }},
    {"stopTimer", [](World& world) { return world.manager.stopTimer(name("timer", 0)), ""s; }},
    {"resetTimer", [](World& world) { return world.manager.resetTimer(name("timer", 1)), ""s; }},
    {"restartTimer", [](World& world) { return world.manager.restartTimer(name("timer", 1)), ""s; }},
    {"getTimerElapsed",
     [](World& world) { return std::to_string(world.manager.getTimerElapsed(name("timer", 1))); }},
    {"getTimerElapsedSeconds",
     [](World& world) { return std::to_string(world.manager.getTimerElapsedSeconds(name("timer", 1))); }},
    {"getTimerLastStarted",
     [](World& world) { return std::to_string(world.manager.getTimerLastStarted(name("timer", 1))); }},
    {"getCounterValue",
     [](World& world) { return std::to_string(world.manager.getCounterValue(name("counter", 1))); }},
    {"incrementCounter",
     [](World& world) { return std::to_string(world.manager.incrementCounter(name("counter", 1))); }},
    {"setCounterValue",
     [](World& world) { return world.manager.setCounterValue(name("counter", 1), 5), ""s; }},
    {"registerListener",
     [](World& world) { return world.manager.registerListener(&world.fourth, &world.thread), ""s; }},
    {"unregisterListener", [](World& world) { return world.manager.unregisterListener(&world.second), ""s; }},
    {"registerForStatus",
     [](World& world) { return world.manager.registerForStatus(&world.third, name("key", 0)), ""s; }},
    {"registerForStatusOfSeveral", [](World& world)
     { return world.manager.registerForStatus(&world.third, names("key", 0, world.keys)), ""s; }},
    {"registerForStatusOfMore", [](World& world)
     { return world.manager.registerForStatus(&world.first, names("key", 1, world.keys + 4)), ""s; }},
    {"unregisterForStatus",
     [](World& world) { return world.manager.unregisterForStatus(&world.first, name("key", 1)), ""s; }},
    {"unregisterForStatusOfSeveral", [](World& world)
     { return world.manager.unregisterForStatus(&world.first, names("key", 1, world.keys)), ""s; }},
    {"postStatus",
     [](World& world) { return world.manager.postStatus(name("key", 1), name("new", 0)), ""s; }},
    {"postStatusOfSeveral",
     [](World& world) { return world.manager.postStatus(values(1, world.keys + 4, "new")), ""s; }},
    {"resetStatus", [](World& world) { return world.manager.resetStatus(name("key", 1)), ""s; }},
    {"resetStatusOfSeveral",
     [](World& world) { return world.manager.resetStatus(names("key", 1, world.keys + 4)), ""s; }},
    {"registerForEvent",
     [](World& world) { return world.manager.registerForEvent(&world.third, name("event", 0)), ""s; }},
    {"registerForEventSeveral", [](World& world)
     { return world.manager.registerForEvent(&world.first, names("event", 1, world.keys + 4)), ""s; }},
    {"unregisterForEvent",
     [](World& world) { return world.manager.unregisterForEvent(&world.first, name("event", 1)), ""s; }},
    {"unregisterForEventSeveral", [](World& world)
     { return world.manager.unregisterForEvent(&world.first, names("event", 1, world.keys)), ""s; }},
    {"postEvent",
     [](World& world) { return world.manager.postEvent(name("event", 1), name("value", 0), 0), ""s; }},
    {"handleStatusUpdate",
     [](World& world) { return world.manager.handleStatusUpdate(values(0, world.keys, "old")), ""s; }},
    {"handleEventUpdate",
     [](World& world) { return world.manager.handleEventUpdate(name("event", 1), name("value", 0)), ""s; }},
    {"clearInfo", [](World& world) { return world.manager.clearInfo(), ""s; }},
    {"sync", [](World& world) { return std::to_string(world.manager.sync(0)); }},
};

enum class Caller
{
    Other,
    ManagersThread
};

std::string call(const Operation& operation, Caller caller, World& world)
{
    if (caller == Caller::Other)
        return operation.call(world);
    const Spared spared;
    std::string result;
    world.manager.onThread([&] { result = operation.call(world); });
    return result;
}

void PrintTo(const Operation& operation, std::ostream* stream)
{
    *stream << operation.name;
}

std::string nameOf(const testing::TestParamInfo<Operation>& info)
{
    return info.param.name;
}

// One of the operations, while memory runs out.
class LocalManagerMemory : public testing::TestWithParam<Operation>
{
protected:
    // How often memory has run out.
    static unsigned tryAll(unsigned keys, Caller caller)
    {
        SCOPED_TRACE(std::to_string(keys) + " keys" +
                     (caller == Caller::ManagersThread ? ", on the manager's thread" : ""));
        World after(keys);
        const std::string expected = call(GetParam(), caller, after);
        after.settle();
        const State wholly = after.state();
        return failEach(
            [&](const Failure& failure)
            {
                const std::size_t before = FailingMemory::liveObjects();
                const bool hasStruck = tryOne(failure, keys, caller, expected, wholly);
                EXPECT_EQ(FailingMemory::liveObjects(), before) << "something was left behind";
                return hasStruck;
            });
    }

private:
    static bool tryOne(const Failure& failure, unsigned keys, Caller caller, const std::string& expected,
                       const State& wholly)
    {
        World world(keys);
        const State notAtAll = world.state();
        std::string result;
        bool ranOut = false;
        const bool hasStruck = failure.during(
            [&]
            {
                ranOut = runsOut([&] { result = call(GetParam(), caller, world); });
                world.settle();
            });
        EXPECT_TRUE(ranOut || result == expected) << result;
        const State then = world.state();
        if (then == wholly)
            world.expectAllTold();
        else
            EXPECT_EQ(then, notAtAll);

        EXPECT_EQ(call(GetParam(), caller, world), expected);
        world.settle();
        EXPECT_EQ(world.state(), wholly);
        world.expectAllTold();
        return hasStruck;
    }
};

// Promises that are not a matter of one operation.
class ManagerMemory : public testing::Test
{
protected:
    static constexpr unsigned keys = 3;

    // Makes the call on the manager's thread, where memory may run out.
    template <class Call>
    static bool onManagersThread(World& world, Call call)
    {
        const Spared spared;
        bool ranOut = false;
        world.manager.onThread([&] { ranOut = runsOut(call); });
        return ranOut;
    }

    FailingMemory::QuietLog log;
};

} // namespace

TEST_P(LocalManagerMemory, anOperationTakesEffectWhollyOrNotAtAllAndCanBeRepeated)
{
    const FailingMemory::QuietLog log;
    for (const unsigned keys : {3U, 10U}) // searched, and found by their index
    {
        EXPECT_GT(tryAll(keys, Caller::Other), 0U);
        tryAll(keys, Caller::ManagersThread);
    }
}

TEST_P(LocalManagerMemory, anOperationTakesEffectWhollyOrNotAtAllAlsoWhereAllIsLogged)
{
    const FailingMemory::QuietLog log("*=7:ffffffff");
    EXPECT_GT(tryAll(3, Caller::Other), 0U);
}

INSTANTIATE_TEST_SUITE_P(, LocalManagerMemory, testing::ValuesIn(operations), nameOf);

TEST_F(ManagerMemory, aListenerThatCannotBeToldOfAValueDoesNotKeepOthersFromBeingTold)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys);
            StatusMap update = values(0, keys, "new");
            const auto tell = [&] { world.manager.handleStatusUpdate(std::move(update)); };
            const bool hasStruck = failure.during([&] { onManagersThread(world, tell); });
            world.settle();
            const bool isFirstTold = World::knownTo(world.first, name("key", 0)) == name("new", 0);
            const bool isSecondTold = World::knownTo(world.second, name("key", 0)) == name("new", 0);
            EXPECT_TRUE(isFirstTold || isSecondTold || failure.extent == Extent::Onward);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

// A listener may have been told of a value that is then not stored.
TEST_F(ManagerMemory, aPostOfWhichNotAllCanBeToldIsTakenBackAndARepeatedOneTellsAll)
{
    bool isTakenBackAfterSomeAreTold = false;
    failEach(
        [&](const Failure& failure)
        {
            World world(keys);
            const auto post = [&] { world.manager.postStatus(values(0, keys + 1, "new")); };
            const State notAtAll = world.state();
            bool ranOut = false;
            const bool hasStruck = failure.during(
                [&]
                {
                    ranOut = onManagersThread(world, post);
                    world.settle();
                });
            const State then = world.state();
            EXPECT_EQ(then == notAtAll, ranOut);
            EXPECT_EQ(then.values == values(0, keys + 1, "new"), !ranOut);
            const std::string told = World::knownTo(world.second, name("key", 0));
            EXPECT_TRUE(told == name("new", 0) || (ranOut && told == name("old", 0))) << told;
            isTakenBackAfterSomeAreTold |= ranOut && told == name("new", 0);

            post();
            world.settle();
            EXPECT_EQ(world.state().values, values(0, keys + 1, "new"));
            world.expectAllTold();
            return hasStruck;
        });
    EXPECT_TRUE(isTakenBackAfterSomeAreTold);
}

TEST_F(ManagerMemory, aListenerThatCannotBeToldOfAnEventDoesNotKeepOthersFromBeingTold)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys);
            std::string event = name("event", 0);
            std::string value = name("value", 0);
            const auto tell = [&] { world.manager.handleEventUpdate(std::move(event), std::move(value)); };
            const bool hasStruck = failure.during([&] { onManagersThread(world, tell); });
            world.settle();
            EXPECT_TRUE(world.first.events().size() + world.second.events().size() > 0 ||
                        failure.extent == Extent::Onward);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, anUnregisteredListenersCallbacksAreDroppedAndOthersAreKept)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys);
            world.occupyListeners();
            world.manager.handleStatusUpdate(values(0, keys, "new"));
            world.manager.onThread([] {});
            bool ranOut = false;
            const auto unregister = [&] { world.manager.unregisterListener(&world.second); };
            const bool hasStruck = failure.during([&] { ranOut = runsOut(unregister); });
            world.settle();
            EXPECT_EQ(World::knownTo(world.first, name("key", 0)), name("new", 0));
            EXPECT_EQ(World::knownTo(world.second, name("key", 0)), name(ranOut ? "new" : "old", 0));
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, aCallbackThatFailsIsLostAndTheNextComes)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys, "counted");
            world.occupyListeners();
            world.manager.handleStatusUpdate(values(0, keys, "lost"));
            world.manager.onThread([] {});
            const bool hasStruck = failure.during([&] { world.settle(); });
            world.manager.handleStatusUpdate(values(0, keys, "new"));
            world.settle();
            EXPECT_EQ(World::knownTo(world.first, name("key", 0)), name("new", 0));
            EXPECT_EQ(World::knownTo(world.second, name("key", 0)), name("new", 0));
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, aManagerIsConstructedOrItsCallerGetsAnException)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            const std::size_t before = FailingMemory::liveObjects();
            std::unique_ptr<StatusManager> manager;
            bool ranOut = false;
            const auto construct = [&] { manager = std::make_unique<StatusManager>(); };
            const bool hasStruck = failure.during([&] { ranOut = runsOut(construct); });
            EXPECT_EQ(ranOut, hasStruck);
            EXPECT_EQ(manager == nullptr, ranOut);
            manager.reset();
            EXPECT_EQ(FailingMemory::liveObjects(), before) << "something was left behind";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, aManagerIsDestroyedWithWhatIsQueuedWithoutMemory)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            const std::size_t before = FailingMemory::liveObjects();
            bool hasStruck = false;
            {
                auto manager = std::make_unique<Manager>();
                Gate gate;
                manager->block(gate);
                for (unsigned number = 0; number < keys; ++number)
                    manager->postStatus(name("key", number), name("new", 0));
                // Its thread is let go when nothing is queued any more.
                std::thread opener(
                    [&gate, &thread = manager->mThread]
                    {
                        eventually([&thread] { return thread.getPendingCount() == 0; });
                        gate.open();
                    });
                hasStruck = failure.during([&] { manager.reset(); });
                opener.join();
            }
            EXPECT_EQ(FailingMemory::liveObjects(), before) << "something was left behind";
            return hasStruck;
        });
    EXPECT_EQ(struck, 0U);
}

// ------------------------------------------------------------------------------------- the inert manager

namespace
{

class InertManager : public StatusManagerStub
{
public:
    using StatusManager::mCounters;
    using StatusManager::mListeners;
    using StatusManager::mStatusValues;
    using StatusManager::mTimers;

    bool isUntouched() const
    {
        return mCounters.empty() && mListeners.empty() && mStatusValues.empty() && mTimers.empty();
    }
};

// One of the operations that the inert manager has of its own, and its result as text. Its arguments take
// memory.
struct InertOperation
{
    const char* name;
    std::string (*call)(InertManager&);
    const char* expected = "";
};

void PrintTo(const InertOperation& operation, std::ostream* stream)
{
    *stream << operation.name;
}

std::string nameOfInert(const testing::TestParamInfo<InertOperation>& info)
{
    return info.param.name;
}

const std::string key = name("key", 0);
const StatusKeys fewKeys = names("key", 0, 3);
const StatusMap fewValues = values(0, 3, "new");

const InertOperation inertOperations[]{
    {"updateSystemTime", [](InertManager& manager) { return manager.updateSystemTime(1), ""s; }},
    {"getClientInfo", [](InertManager& manager) { return shown(manager.getClientInfo()); }, "{}"},
    {"startTimer", [](InertManager& manager) { return manager.startTimer(key), ""s; }},
    {"stopTimer", [](InertManager& manager) { return manager.stopTimer(key), ""s; }},
    {"resetTimer", [](InertManager& manager) { return manager.resetTimer(key), ""s; }},
    {"restartTimer", [](InertManager& manager) { return manager.restartTimer(key), ""s; }},
    {"setCounterValue", [](InertManager& manager) { return manager.setCounterValue(key, 5), ""s; }},
    {"registerListener",
     [](InertManager& manager) { return manager.registerListener(nullptr, nullptr), ""s; }},
    {"unregisterListener", [](InertManager& manager) { return manager.unregisterListener(nullptr), ""s; }},
    {"registerForStatus", [](InertManager& manager) { return manager.registerForStatus(nullptr, key), ""s; }},
    {"registerForStatusOfSeveral",
     [](InertManager& manager) { return manager.registerForStatus(nullptr, fewKeys), ""s; }},
    {"postStatus", [](InertManager& manager) { return manager.postStatus(key, key), ""s; }},
    {"postStatusOfSeveral", [](InertManager& manager) { return manager.postStatus(fewValues), ""s; }},
    {"registerForEvent", [](InertManager& manager) { return manager.registerForEvent(nullptr, key), ""s; }},
    {"registerForEventSeveral",
     [](InertManager& manager) { return manager.registerForEvent(nullptr, fewKeys), ""s; }},
    {"postEvent", [](InertManager& manager) { return manager.postEvent(key, key, 0), ""s; }},
    {"sync", [](InertManager& manager) { return std::to_string(manager.sync(-1)); }, "1"},
    {"getClientInfoValue", [](InertManager& manager) { return manager.getClientInfoValue(key); }},
    {"getClientInfoValues", [](InertManager& manager) { return shown(manager.getClientInfoValues(fewKeys)); },
     "{}"},
    {"getTimerElapsed", [](InertManager& manager) { return std::to_string(manager.getTimerElapsed(key)); },
     "0"},
    {"getTimerLastStarted",
     [](InertManager& manager) { return std::to_string(manager.getTimerLastStarted(key)); }, "0"},
    {"getCounterValue", [](InertManager& manager) { return std::to_string(manager.getCounterValue(key)); },
     "0"},
    {"incrementCounter", [](InertManager& manager) { return std::to_string(manager.incrementCounter(key)); },
     "0"},
    {"unregisterForStatus",
     [](InertManager& manager) { return manager.unregisterForStatus(nullptr, key), ""s; }},
    {"unregisterForStatusOfSeveral",
     [](InertManager& manager) { return manager.unregisterForStatus(nullptr, fewKeys), ""s; }},
    {"unregisterForEvent",
     [](InertManager& manager) { return manager.unregisterForEvent(nullptr, key), ""s; }},
    {"unregisterForEventSeveral",
     [](InertManager& manager) { return manager.unregisterForEvent(nullptr, fewKeys), ""s; }},
};

class InertManagerMemory : public testing::TestWithParam<InertOperation>
{
};

} // namespace

TEST_P(InertManagerMemory, anOperationIsNeutralOrReachesItsCallerAsAnExceptionAndKeepsNothing)
{
    InertManager manager;
    for (const char* rules : {"*=5:ffffffff", "*=7:ffffffff"})
    {
        const FailingMemory::QuietLog log(rules);
        FakeClock::reset();
        failEach(
            [&](const Failure& failure)
            {
                const std::size_t before = FailingMemory::liveObjects();
                bool hasStruck = false;
                {
                    std::string result;
                    bool ranOut = false;
                    hasStruck =
                        failure.during([&] { ranOut = runsOut([&] { result = GetParam().call(manager); }); });
                    EXPECT_TRUE(hasStruck || !ranOut);
                    EXPECT_EQ(result, ranOut ? "" : GetParam().expected);
                }
                EXPECT_EQ(FailingMemory::liveObjects(), before) << "something was left behind";
                EXPECT_EQ(GetParam().call(manager), GetParam().expected);
                EXPECT_TRUE(manager.isUntouched());
                EXPECT_FALSE(FakeClock::lastSetting());
                return hasStruck;
            });
    }
}

INSTANTIATE_TEST_SUITE_P(, InertManagerMemory, testing::ValuesIn(inertOperations), nameOfInert);
