#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "common/Mutex.h"
#include "common/RefCount.h"
#include "tests/support/Wait.h"

using namespace Orvane;

namespace
{

class Counted : public RefCount
{
public:
    explicit Counted(int& deletions) : mDeletions(deletions) {}
    ~Counted() override { ++mDeletions; }
    uint32_t count() const { return mRefCount; }

private:
    int& mDeletions;
};

} // namespace

TEST(RefCountTest, startsAtZeroAndEndsTheObjectWithTheLastRelease)
{
    int deletions = 0;
    auto* object = OV_NEW Counted(deletions);
    EXPECT_EQ(object->count(), 0U);
    object->AddRef();
    object->AddRef();
    object->Release();
    EXPECT_EQ(deletions, 0);
    object->Release();
    EXPECT_EQ(deletions, 1);
}

TEST(RefCountTest, reachingZeroCallsTheHookWithoutTheLock)
{
    class Hooked : public RefCount
    {
    public:
        explicit Hooked(bool& lockWasFree) : mLockWasFree(lockWasFree) {}
        void onRefCountZero() override
        {
            mLockWasFree = pthread_mutex_trylock(&Mutex::mCriticalSection) == 0;
            if (mLockWasFree)
                pthread_mutex_unlock(&Mutex::mCriticalSection);
        }

    private:
        bool& mLockWasFree;
    };
    bool lockWasFree = false;
    Hooked object(lockWasFree);
    object.AddRef();
    object.Release();
    EXPECT_TRUE(lockWasFree);
}

TEST(RefCountTest, countsOfManyThreadsAreExact)
{
    int deletions = 0;
    auto* object = OV_NEW Counted(deletions);
    object->AddRef();
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back(
            [object]
            {
                for (int count = 0; count < 10000; ++count)
                {
                    object->AddRef();
                    object->Release();
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(object->count(), 1U);
    object->Release();
    EXPECT_EQ(deletions, 1);
}

TEST(SmartPtrTest, holdsOneCountEach)
{
    int deletions = 0;
    auto* object = OV_NEW Counted(deletions);
    {
        SmartPtr<Counted> first(object);
        EXPECT_EQ(object->count(), 1U);
        SmartPtr<Counted> second(first);
        EXPECT_EQ(object->count(), 2U);
        SmartPtr<Counted> moved(std::move(first));
        EXPECT_EQ(object->count(), 2U);
        second = SmartPtr<Counted>();
        EXPECT_EQ(moved->count(), 1U);
        EXPECT_EQ(moved.get(), object);
        EXPECT_FALSE(second);
    }
    EXPECT_EQ(deletions, 1);
}

TEST(RefCountTest, anObjectThatNobodyHeldIsNotDestroyedByItself)
{
    int deletions = 0;
    auto* object = OV_NEW Counted(deletions);
    EXPECT_EQ(deletions, 0);
    delete object;
    EXPECT_EQ(deletions, 1);
}

TEST(RefCountTest, theLastOfManyReleasingThreadsDestroysOnce)
{
    constexpr int threadCount = 4;
    for (int round = 0; round < 100; ++round)
    {
        int deletions = 0;
        auto* object = OV_NEW Counted(deletions);
        for (int count = 0; count < threadCount; ++count)
            object->AddRef();
        std::vector<std::thread> threads;
        for (int index = 0; index < threadCount; ++index)
            threads.emplace_back([object] { object->Release(); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(deletions, 1);
    }
}

TEST(RefCountTest, addingAndReleasingWaitForTheProcessWideLock)
{
    int deletions = 0;
    auto* object = OV_NEW Counted(deletions);
    object->AddRef();
    pthread_mutex_lock(&Mutex::mCriticalSection);
    Gate done;
    std::thread other(
        [&]
        {
            object->AddRef();
            object->Release();
            done.open();
        });
    EXPECT_FALSE(done.wait(std::chrono::milliseconds(20)));
    EXPECT_EQ(object->count(), 1U);
    pthread_mutex_unlock(&Mutex::mCriticalSection);
    other.join();
    EXPECT_EQ(object->count(), 1U);
    object->Release();
    EXPECT_EQ(deletions, 1);
}

TEST(SmartPtrTest, assigningItToItselfKeepsTheObject)
{
    int deletions = 0;
    SmartPtr<Counted> pointer(OV_NEW Counted(deletions));
    const SmartPtr<Counted>& same = pointer;
    pointer = same;
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(pointer->count(), 1U);
}

TEST(SmartPtrTest, anotherObjectAssignedReleasesTheFirst)
{
    int firstDeletions = 0;
    int secondDeletions = 0;
    SmartPtr<Counted> pointer(OV_NEW Counted(firstDeletions));
    pointer = SmartPtr<Counted>(OV_NEW Counted(secondDeletions));
    EXPECT_EQ(firstDeletions, 1);
    EXPECT_EQ(secondDeletions, 0);
}

TEST(SmartPtrTest, ofNullHoldsNothing)
{
    const SmartPtr<Counted> empty(nullptr);
    const SmartPtr<Counted> copy(empty);
    EXPECT_FALSE(copy);
    EXPECT_EQ(copy.get(), nullptr);
}
