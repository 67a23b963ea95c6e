// The process's one manager. Each case runs in its own child process.

#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <vector>

#include "statusmanager/StatusManagerStub.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/TraceLines.h"

namespace
{

void laterArgumentsAreIgnored()
{
    StatusManager* first = StatusManager::getInstance(true);
    EXPECT_EQ(StatusManager::getInstance(false), first);
    EXPECT_EQ(StatusManager::getInstance(true), first);
    EXPECT_NE(dynamic_cast<StatusManagerStub*>(first), nullptr);
}

void concurrentFirstCallsYieldOneObject()
{
    const LogCapture log("StatusManagerStub=6");
    std::vector<StatusManager*> instances(16);
    std::vector<std::thread> threads;
    for (StatusManager*& instance : instances)
        threads.emplace_back([&instance] { instance = StatusManager::getInstance(true); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(std::set<StatusManager*>(instances.begin(), instances.end()).size(), 1U);
    EXPECT_NE(instances.front(), nullptr);
    EXPECT_EQ(log.count(6, "begin"), 1U); // only one construction
}

void throughTheInstanceTheStubsCounterIsTheBases()
{
    const LogCapture log;
    EXPECT_EQ(StatusManager::getInstance(true)->getCounterValue(""), 0U);
    EXPECT_TRUE(log.has(2, "Counter name is empty"));
}

void eachCallIsTraced()
{
    const LogCapture log("StatusManager=7:40000000");
    StatusManager::getInstance(true);
    StatusManager::getInstance(true);
    const TraceLines call =
        scope("static StatusManager* StatusManager::getInstance(bool)", {}, TraceLine::By::Caller);
    const TraceLines construction = scope("StatusManager::StatusManager()", {}, TraceLine::By::Caller, 6);
    EXPECT_EQ(loggedOn(std::this_thread::get_id(), TraceLine::By::Caller, log),
              inARow({{call.front()}, construction, {call.back()}, call}));
}

void theInstanceIsTrackedWithItsSource()
{
    StatusManager::getInstance(true);
    bool found = false;
    for (const auto* site = Orvane::AllocationSite::first(); site != nullptr; site = site->next())
        found = found || (site->live() == 1 &&
                          std::string(site->file()).find("StatusManager.cpp") != std::string::npos);
    EXPECT_TRUE(found);
}

using GetInstance = OwnProcess;

} // namespace

TEST_F(GetInstance, laterCallsReturnTheFirstInstanceWhateverTheyPass)
{
    EXPECT_IN_OWN_PROCESS(laterArgumentsAreIgnored());
}

TEST_F(GetInstance, concurrentFirstCallsConstructOneObject)
{
    EXPECT_IN_OWN_PROCESS(concurrentFirstCallsYieldOneObject());
}

TEST_F(GetInstance, throughItTheStubsCounterIsTheBases)
{
    EXPECT_IN_OWN_PROCESS(throughTheInstanceTheStubsCounterIsTheBases());
}

TEST_F(GetInstance, tracesEachCallAroundTheConstruction)
{
    EXPECT_IN_OWN_PROCESS(eachCallIsTraced());
}

TEST_F(GetInstance, theObjectIsAllocatedInTheTrackingForm)
{
    EXPECT_IN_OWN_PROCESS(theInstanceIsTrackedWithItsSource());
}

TEST_F(GetInstance, theProcessMayEndWhileTheManagersThreadWorks)
{
    for (int round = 0; round < 50; ++round)
        EXPECT_IN_OWN_PROCESS({
            StatusManager* manager = StatusManager::getInstance(true);
            for (int count = 0; count < 100; ++count)
                manager->resetStatus("key" + std::to_string(count));
        });
}
