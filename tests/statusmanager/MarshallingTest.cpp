// Calls each operation from a thread other than the manager's. Does it return before or after its work, which
// thread does the work, and does the most derived version do it?

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <utility>

#include "tests/statusmanager/Operations.h"
#include "tests/statusmanager/TestManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingListener.h"

namespace
{

// Overrides every operation that works on the manager's thread, and records its calls. As in any derived
// class, a call from another thread goes to the base, which calls the override on the manager's thread.
class DerivedManager : public TestManager
{
public:
    ~DerivedManager() override { mThread.stop(); } // before the overrides' members are destroyed

    template <class Result, class Call>
    Result note(const char* name, Call baseCall)
    {
        if (!mThread.isThreadCurrent())
            return baseCall();
        const std::lock_guard<std::mutex> lock(mMutex);
        mDone.push_back(name);
        return Result();
    }

#define NOTED(Result, name, parameters, arguments)                                                           \
    Result name parameters override                                                                          \
    {                                                                                                        \
        return note<Result>(#name, [&] { return StatusManager::name arguments; });                           \
    }
    NOTED(void, updateSystemTime, (uint32_t a), (a))
    NOTED(StatusMap, getClientInfo, (), ())
    NOTED(std::string, getClientInfoValue, (const std::string& a), (a))
    NOTED(StatusMap, getClientInfoValues, (const StatusKeys& a), (a))
    NOTED(void, startTimer, (std::string a), (a))
    NOTED(void, stopTimer, (std::string a), (a))
    NOTED(void, resetTimer, (std::string a), (a))
    NOTED(void, restartTimer, (std::string a), (a))
    NOTED(uint64_t, getTimerElapsed, (const std::string& a), (a))
    NOTED(uint64_t, getTimerElapsedSeconds, (const std::string& a), (a))
    NOTED(uint64_t, getTimerLastStarted, (const std::string& a), (a))
    NOTED(uint32_t, getCounterValue, (const std::string& a), (a))
    NOTED(uint32_t, incrementCounter, (const std::string& a), (a))
    NOTED(void, setCounterValue, (std::string a, uint32_t b), (a, b))
    NOTED(void, registerListener, (IStatusUpdateListener * a, Orvane::EventDispatcher* b), (a, b))
    using StatusManager::registerForStatus;
    NOTED(void, registerForStatus, (IStatusUpdateListener * a, StatusKeys b), (a, b))
    using StatusManager::unregisterForStatus;
    NOTED(void, unregisterForStatus, (IStatusUpdateListener * a, const StatusKeys& b), (a, b))
    using StatusManager::postStatus;
    NOTED(void, postStatus, (StatusMap a), (a))
    using StatusManager::resetStatus;
    NOTED(void, resetStatus, (StatusKeys a), (a))
    using StatusManager::registerForEvent;
    NOTED(void, registerForEvent, (IStatusUpdateListener * a, EventKeys b), (a, b))
    using StatusManager::unregisterForEvent;
    NOTED(void, unregisterForEvent, (IStatusUpdateListener * a, const EventKeys& b), (a, b))
    NOTED(bool, sync, (int a), (a))
#undef NOTED

    std::vector<std::string> done()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mDone;
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mDone;
};

class Queued : public testing::TestWithParam<Operation>
{
};

class Waiting : public testing::TestWithParam<Operation>
{
};

// Waits until the operation is queued behind the block on the manager's thread.
bool isQueued(TestManager& manager)
{
    return eventually([&] { return manager.mThread.getPendingCount() == 1; });
}

std::ptrdiff_t beginsOf(const std::string& function, const LogCapture& log)
{
    const std::vector<LogLine> lines = log.lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const LogLine& line)
                         { return line.function == function && line.text == "begin"; });
}

// A call that waits, made on a separate thread while the manager's thread is blocked.
void expectToWait(TestManager& manager, const std::function<void()>& call)
{
    Gate gate;
    manager.block(gate);
    std::atomic<bool> returned{false};
    std::thread caller(
        [&]
        {
            call();
            returned = true;
        });
    EXPECT_TRUE(isQueued(manager));
    EXPECT_FALSE(returned);
    gate.open();
    caller.join();
}

} // namespace

TEST_P(Queued, returnsBeforeTheMostDerivedVersionHasRunOnTheManagersThread)
{
    DerivedManager manager;
    Gate gate;
    manager.block(gate);
    GetParam().call(manager);
    EXPECT_TRUE(manager.done().empty());
    EXPECT_TRUE(isQueued(manager));
    gate.open();
    EXPECT_TRUE(eventually([&] { return manager.done() == std::vector<std::string>{GetParam().name}; }));
}

TEST_P(Queued, runsAtOnceOnTheManagersThread)
{
    DerivedManager manager;
    manager.onThread(
        [&]
        {
            GetParam().call(manager);
            EXPECT_EQ(manager.done(), std::vector<std::string>{GetParam().name});
        });
}

TEST_P(Waiting, returnsAfterTheMostDerivedVersionHasRunOnTheManagersThread)
{
    DerivedManager manager;
    expectToWait(manager,
                 [&]
                 {
                     GetParam().call(manager);
                     EXPECT_EQ(manager.done(), std::vector<std::string>{GetParam().name});
                 });
}

TEST_P(Waiting, runsInPlaceOnTheManagersThreadEvenWhileOthersAreQueued)
{
    DerivedManager manager;
    manager.onThread(
        [&]
        {
            std::thread([&] { manager.postStatus("queued", "v"); }).join();
            GetParam().call(manager);
            EXPECT_EQ(manager.done(), std::vector<std::string>{GetParam().name});
        });
}

class Traced : public testing::TestWithParam<Operation>
{
protected:
    using By = TraceLine::By;

    Traced()
    {
        manager.onThread([this] { managersThread = std::this_thread::get_id(); });
    }

    TestManager manager;
    std::thread::id managersThread;
    LogCapture log{"StatusManager=7:40000000"};
};

TEST_P(Traced, logsExactlyItsLinesWhenItIsCalledFromAnotherThread)
{
    GetParam().call(manager);
    manager.onThread([] {}); // behind the queued calls
    for (const auto& [by, thread] :
         {std::pair(By::Caller, std::this_thread::get_id()), std::pair(By::Manager, managersThread)})
        EXPECT_EQ(loggedOn(thread, by, log), linesBy(by, GetParam().lines));
}

TEST_P(Traced, logsExactlyItsLinesWhenItIsCalledOnTheManagersThread)
{
    manager.onThread([this] { GetParam().call(manager); });
    EXPECT_EQ(loggedOn(managersThread, By::Manager, log),
              allBy(By::Manager, GetParam().linesInPlace.value_or(GetParam().lines)));
}

INSTANTIATE_TEST_SUITE_P(OtherOperations, Traced, testing::ValuesIn(otherOperations));
INSTANTIATE_TEST_SUITE_P(QueuedOperations, Traced, testing::ValuesIn(queuedOperations));
INSTANTIATE_TEST_SUITE_P(WaitingOperations, Traced, testing::ValuesIn(waitingOperations));
INSTANTIATE_TEST_SUITE_P(Operations, Queued, testing::ValuesIn(queuedOperations));
INSTANTIATE_TEST_SUITE_P(Operations, Waiting, testing::ValuesIn(waitingOperations));

TEST(Marshalling, handedInUpdatesAndEventsAreQueued)
{
    TestManager manager;
    Gate gate;
    manager.block(gate);
    manager.handleStatusUpdate({{"k", "v"}});
    manager.handleEventUpdate("e", "v");
    manager.postEvent("e", "v", 0);
    EXPECT_EQ(manager.mThread.getPendingCount(), 3U);
    gate.open();
    EXPECT_TRUE(manager.sync(0));
}

TEST(Marshalling, clearInfoWaits)
{
    TestManager manager;
    expectToWait(manager, [&] { manager.clearInfo(); });
}

TEST(Marshalling, unregisterListenerWaits)
{
    TestManager manager;
    expectToWait(manager, [&] { manager.unregisterListener(nullptr); });
}

TEST(Marshalling, aQueryBehindAPostSeesIt)
{
    TestManager manager;
    for (int round = 0; round < 1000; ++round)
    {
        manager.postStatus("k", std::to_string(round));
        ASSERT_EQ(manager.getClientInfoValue("k"), std::to_string(round));
    }
}

TEST(Marshalling, callsOfOneThreadKeepTheirOrder)
{
    TestManager manager;
    for (int count = 0; count < 1000; ++count)
        manager.postStatus("k" + std::to_string(count % 10), std::to_string(count));
    const StatusMap values = manager.getClientInfo();
    EXPECT_EQ(values.at("k9"), "999");
    EXPECT_EQ(values.at("k0"), "990");
}

TEST(Marshalling, destroyingAManagerDropsWhatIsQueued)
{
    // The base's version: during the base's destructor a call can reach no other version.
    const std::string function = "virtual void StatusManager::postStatus(StatusMap)";
    LogCapture log("StatusManager=7:40000000");
    Gate gate;
    std::thread opener;
    bool isDropped = false;
    {
        TestManager manager;
        manager.postStatus(StatusMap());
        manager.sync(0);
        EXPECT_EQ(beginsOf(function, log), 1); // shows that a call would be seen
        log.clear();

        manager.block(gate);
        for (int count = 0; count < 10; ++count)
            manager.postStatus(StatusMap());
        Orvane::EventThread& queue = manager.mThread;
        opener = std::thread(
            [&]
            {
                isDropped = eventually([&] { return queue.getPendingCount() == 0; });
                gate.open();
            });
    } // drops the ten calls, then waits for the thread, which the opener then releases
    opener.join();
    EXPECT_TRUE(isDropped);
    EXPECT_EQ(beginsOf(function, log), 0);
}

// -------------------------------------------------------------------------------------------------- traces

TEST(Traces, anOperationIsTracedOnceFromWhereverItIsCalled)
{
    TestManager manager;
    const LogCapture log("StatusManager=7:40000000");
    manager.getClientInfo();
    EXPECT_EQ(log.count(7, "begin"), 1U);
    manager.onThread([&] { manager.getClientInfo(); });
    EXPECT_EQ(log.count(7, "begin"), 2U);
    EXPECT_EQ(log.count(7, "end"), 2U);
}

TEST(Traces, theConstructorAndDestructorTraceAtLevelSix)
{
    const LogCapture log("StatusManager=6:40000000");
    {
        StatusManager manager;
    }
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].function, "StatusManager::StatusManager()");
    EXPECT_EQ(lines[0].text, "begin");
    EXPECT_EQ(lines[1].text, "end");
    EXPECT_EQ(lines[1].line, lines[0].line);
    EXPECT_EQ(lines[2].function, "virtual StatusManager::~StatusManager()");
    EXPECT_EQ(lines[3].text, "end");
    for (const LogLine& line : lines)
    {
        EXPECT_EQ(line.level, 6);
        EXPECT_EQ(line.file, "/StatusManager.cpp");
    }
}

TEST(Traces, ofTheSingleKeyFormsOnlyUnregisterForEventTraces)
{
    TestManager manager;
    LogCapture log("StatusManager=7:40000000");
    manager.onThread(
        [&]
        {
            manager.registerForStatus(nullptr, "k");
            manager.unregisterForStatus(nullptr, "k");
            manager.registerForEvent(nullptr, "e");
        });
    EXPECT_EQ(log.count(7, "begin"), 3U); // of the list forms
    log.clear();
    manager.onThread([&] { manager.unregisterForEvent(nullptr, "e"); });
    EXPECT_EQ(log.count(7, "begin"), 2U);
    EXPECT_EQ(log.lines().front().function,
              "virtual void StatusManager::unregisterForEvent(IStatusUpdateListener*, const string&)");
}
