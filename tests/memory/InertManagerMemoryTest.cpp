// The inert manager when memory runs out, operation by operation.

#include <gtest/gtest.h>
#include <ostream>

#include "statusmanager/StatusManagerStub.h"
#include "tests/memory/LocalWorld.h"

using FailingMemory::failEachCleanly;
using FailingMemory::Failure;
using FailingMemory::runsOut;

using namespace std::string_literals;

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

// An operation that the inert manager implements itself, with its result as text. Its arguments allocate.
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
        failEachCleanly(
            [&](const Failure& failure)
            {
                std::string result;
                bool ranOut = false;
                const bool hasStruck =
                    failure.during([&] { ranOut = runsOut([&] { result = GetParam().call(manager); }); });
                EXPECT_TRUE(hasStruck || !ranOut);
                EXPECT_EQ(result, ranOut ? "" : GetParam().expected);
                EXPECT_EQ(GetParam().call(manager), GetParam().expected);
                EXPECT_TRUE(manager.isUntouched());
                EXPECT_FALSE(FakeClock::lastSetting());
                return hasStruck;
            });
    }
}

INSTANTIATE_TEST_SUITE_P(, InertManagerMemory, testing::ValuesIn(inertOperations), nameOfInert);
