// The process's one manager when memory runs out during its construction. Each case runs in a child process,
// because the manager is never destroyed.

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "statusmanager/StatusManager.h"
#include "tests/memory/Belongings.h"
#include "tests/memory/FailingMemory.h"
#include "tests/support/ScriptedBroker.h"

using FailingMemory::Failure;
using FailingMemory::runsOut;

#ifdef __SANITIZE_THREAD__
// By default, ThreadSanitizer sleeps a second at the end of each child.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0";
}
#endif

namespace
{

class Instance : public StatusManager
{
public:
    static StatusManager* current() { return mInstance; }
};

// The exit codes of a child.
constexpr int struckAndPassed = 0;
constexpr int failed = 1;
constexpr int passedUntouched = 2;

class GetInstanceMemory : public testing::TestWithParam<bool>
{
protected:
    // Makes the instance while memory may run out, then again without a shortage.
    static bool makeInstance(bool useStub, const Failure& failure)
    {
        const Belongings before;
        StatusManager* instance = nullptr;
        bool ranOut = false;
        const auto make = [&] { instance = StatusManager::getInstance(useStub); };
        const bool hasStruck = failure.during([&] { ranOut = runsOut(make); });
        EXPECT_EQ(Instance::current(), instance);
        EXPECT_EQ(instance == nullptr, ranOut);
        EXPECT_TRUE(hasStruck || !ranOut);
        EXPECT_TRUE(!ranOut || before.areAllThereIs()) << "something was left behind";

        make();
        EXPECT_NE(instance, nullptr);
        EXPECT_EQ(StatusManager::getInstance(!useStub), instance);
        EXPECT_TRUE(instance->sync(-1));
        return hasStruck;
    }

    static int makeInstanceInChild(bool useStub, const Failure& failure)
    {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0)
        {
            std::thread([] {}).join(); // ThreadSanitizer starts its own thread with the first
            const FailingMemory::QuietLog log;
            std::optional<ScriptedBroker> broker;
            if (!useStub)
                broker.emplace();
            const bool hasStruck = makeInstance(useStub, failure);
            broker.reset();
            exit(HasFailure() ? failed : hasStruck ? struckAndPassed : passedUntouched);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? WEXITSTATUS(status) : failed;
    }
};

std::string nameOf(const testing::TestParamInfo<bool>& info)
{
    return info.param ? "inert" : "client";
}

} // namespace

TEST_P(GetInstanceMemory, aRefusedCallLeavesNothingBehindAndALaterOneMakesTheInstance)
{
    const unsigned struck = FailingMemory::failEach(
        [](const Failure& failure)
        {
            const int outcome = makeInstanceInChild(GetParam(), failure);
            EXPECT_TRUE(outcome == struckAndPassed || outcome == passedUntouched) << outcome;
            return outcome == struckAndPassed;
        });
    EXPECT_GT(struck, 0U);
}

INSTANTIATE_TEST_SUITE_P(, GetInstanceMemory, testing::Bool(), nameOf);
