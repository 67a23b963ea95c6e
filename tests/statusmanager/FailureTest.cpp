// Memory runs out, or no thread can be started. The caller gets an exception, nothing is half done, and a
// later call works.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "common/Logging.h"
#include "statusmanager/StatusManagerStub.h"
#include "tests/statusmanager/Operations.h"
#include "tests/statusmanager/Scarcity.h"
#include "tests/statusmanager/TestManager.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OwnProcess.h"

namespace
{

// --------------------------------------------------------------------------------------- the one instance

using FailedInstance = OwnProcess;

// Counts the managers created by getInstance(), by their places in the source.
unsigned liveManagers()
{
    unsigned live = 0;
    for (const auto* site = Orvane::AllocationSite::first(); site != nullptr; site = site->next())
    {
        if (std::string(site->file()).find("statusmanager/StatusManager.cpp") != std::string::npos)
            live += site->live();
    }
    return live;
}

void failsUntilThereIsMemory()
{
    StatusManager* instance = nullptr;
    int failures = 0;
    for (int allocations = 0; instance == nullptr && allocations < 1000; ++allocations)
    {
        try
        {
            const ScarceMemory scarce(allocations);
            instance = StatusManager::getInstance(true);
        }
        catch (const std::bad_alloc&)
        {
            ++failures;
            EXPECT_EQ(liveManagers(), 0U) << allocations;
        }
    }
    EXPECT_GE(failures, 2); // the storage, and the construction's allocations
    EXPECT_NE(dynamic_cast<StatusManagerStub*>(instance), nullptr);
    EXPECT_EQ(StatusManager::getInstance(true), instance);
    EXPECT_EQ(liveManagers(), 1U);
}

// The broker's client starts two threads before it looks for a broker.
void failsUntilThereAreThreads()
{
    for (int threads = 0; threads < 2; ++threads)
    {
        const ScarceThreads scarce(threads);
        EXPECT_THROW(StatusManager::getInstance(false), std::system_error) << threads;
        EXPECT_EQ(liveManagers(), 0U) << threads;
    }
    // The failed call has decided nothing: the next call chooses the manager.
    EXPECT_NE(dynamic_cast<StatusManagerStub*>(StatusManager::getInstance(true)), nullptr);
    EXPECT_EQ(liveManagers(), 1U);
}

} // namespace

TEST_F(FailedInstance, forWantOfMemoryThrowsAndIsTriedAgainByALaterCall)
{
    EXPECT_IN_OWN_PROCESS(failsUntilThereIsMemory());
}

TEST_F(FailedInstance, forWantOfAThreadThrowsAndIsTriedAgainByALaterCall)
{
    EXPECT_IN_OWN_PROCESS(failsUntilThereAreThreads());
}

// ---------------------------------------------------------------------------------------------- operations

namespace
{

// Counts calls that begin on the manager's thread, without allocating.
std::atomic<std::size_t> begun{0};
std::atomic<std::thread::id> managersThread;

void countBegin(const ov_log_record* record, void*)
{
    if (std::this_thread::get_id() == managersThread && std::strcmp(record->text, "begin") == 0)
        ++begun;
}

class FailedCall : public testing::TestWithParam<Operation>
{
protected:
    FailedCall()
    {
        manager.onThread([] { managersThread = std::this_thread::get_id(); });
        begun = 0;
        ov_log_set_sink(countBegin, nullptr);
        ov_log_configure("StatusManager=7:40000000");
    }

    ~FailedCall() override
    {
        ov_log_set_sink(nullptr, nullptr);
        ov_log_configure("*=5:ffffffff");
    }

    // Waits for queued calls. Returns how often the operation has run on the manager's thread.
    std::size_t timesDone()
    {
        manager.onThread([] {});
        return begun;
    }

    TestManager manager;
};

std::vector<Operation> allOperations()
{
    std::vector<Operation> all = queuedOperations;
    all.insert(all.end(), waitingOperations.begin(), waitingOperations.end());
    all.insert(all.end(), otherOperations.begin(), otherOperations.end());
    return all;
}

} // namespace

TEST_P(FailedCall, forWantOfMemoryThrowsAndSendsNothing)
{
    int failures = 0;
    for (bool hasFailed = true; hasFailed && failures < 1000;)
    {
        try
        {
            const ScarceMemory scarce(failures);
            GetParam().call(manager);
            hasFailed = false;
        }
        catch (const std::bad_alloc&)
        {
            ++failures;
            ASSERT_EQ(timesDone(), 0U) << failures;
        }
    }
    EXPECT_GE(failures, 1); // at least the agent
    EXPECT_GE(timesDone(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Operations, FailedCall, testing::ValuesIn(allOperations()));
