// The local manager's state and listeners when memory runs out, operation by operation.

#include <gtest/gtest.h>
#include <ostream>

#include "tests/memory/LocalWorld.h"

using FailingMemory::failEachCleanly;
using FailingMemory::Failure;
using FailingMemory::runsOut;
using FailingMemory::Spared;

namespace
{

using namespace std::string_literals;

// An operation of the manager, with its result if it has one. It may be called twice.
struct Operation
{
    const char* name;
    std::string (*call)(World&);
};

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

// One operation, while memory runs out.
class LocalManagerMemory : public testing::TestWithParam<Operation>
{
protected:
    // Returns how often memory ran out.
    static unsigned tryAll(unsigned keys, Caller caller)
    {
        SCOPED_TRACE(std::to_string(keys) + " keys" +
                     (caller == Caller::ManagersThread ? ", on the manager's thread" : ""));
        World after(keys);
        const std::string expected = call(GetParam(), caller, after);
        after.settle();
        const State wholly = after.state();
        return failEachCleanly([&](const Failure& failure)
                               { return tryOne(failure, keys, caller, expected, wholly); });
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

} // namespace

TEST_P(LocalManagerMemory, anOperationTakesEffectWhollyOrNotAtAllAndCanBeRepeated)
{
    const FailingMemory::QuietLog log;
    for (const unsigned keys : {3U, 10U}) // 3 are searched; 10 use the index
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
