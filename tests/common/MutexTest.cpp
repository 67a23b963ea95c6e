#include "common/Mutex.h"

#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

#include "tests/support/Wait.h"

using namespace Orvane;

namespace
{

// Takes the mutex on its own thread, and records when it has it.
class Contender
{
public:
    explicit Contender(Mutex& mutex)
        : mThread(
              [this, &mutex]
              {
                  const AutoLock lock(mutex);
                  mEntered.open();
              })
    {
    }
    ~Contender() { mThread.join(); }

    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;

    bool getsIn(std::chrono::milliseconds deadline) { return mEntered.wait(deadline); }

private:
    Gate mEntered;
    std::thread mThread;
};

constexpr std::chrono::milliseconds aMoment{20};

} // namespace

TEST(MutexTest, aRecursiveOneMayBeTakenAgainByItsHolder)
{
    Mutex mutex(true);
    const AutoLock first(mutex);
    const AutoLock second(mutex);
}

TEST(MutexTest, aRecursiveOneIsFreeWhenItWasReleasedAsOftenAsTaken)
{
    Mutex mutex(true);
    mutex.lock();
    mutex.lock();
    Contender contender(mutex);
    mutex.unlock();
    EXPECT_FALSE(contender.getsIn(aMoment));
    mutex.unlock();
    EXPECT_TRUE(contender.getsIn(testDeadline));
}

TEST(MutexTest, autoLockHoldsItForTheScope)
{
    Mutex mutex(false);
    auto lock = std::make_unique<AutoLock>(mutex);
    Contender contender(mutex);
    EXPECT_FALSE(contender.getsIn(aMoment));
    lock.reset();
    EXPECT_TRUE(contender.getsIn(testDeadline));
}

TEST(MutexTest, autoLockReleasesItWhenAnExceptionLeavesTheScope)
{
    Mutex mutex(false);
    try
    {
        const AutoLock lock(mutex);
        throw 1;
    }
    catch (int)
    {
    }
    Contender contender(mutex);
    EXPECT_TRUE(contender.getsIn(testDeadline));
}

TEST(MutexTest, keepsOthersOutUntilItIsReleased)
{
    for (const bool recursive : {true, false})
    {
        Mutex mutex(recursive);
        int value = 0;
        std::vector<std::thread> threads;
        for (int index = 0; index < 4; ++index)
            threads.emplace_back(
                [&]
                {
                    for (int count = 0; count < 10000; ++count)
                    {
                        const AutoLock lock(mutex);
                        ++value;
                    }
                });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(value, 40000);
    }
}

TEST(MutexTest, theLockOfTheCountsIsIndependentOfOthers)
{
    Mutex mutex(true);
    const AutoLock lock(mutex);
    ASSERT_EQ(pthread_mutex_trylock(&Mutex::mCriticalSection), 0);
    pthread_mutex_unlock(&Mutex::mCriticalSection);
}
