#include "tests/broker/attacks/UnderAttack.h"

// ------------------------------------------------------------------------------------------------- fixture

void UnderAttack::expectServing()
{
    const std::string value = std::to_string(++mAlive);
    poster.post(postOf("alive", value));
    EXPECT_TRUE(eventually([&] { return valueOf(requester, "alive") == reply(value); }));
}

std::ptrdiff_t UnderAttack::linesWith(const std::string& text)
{
    std::ptrdiff_t count = 0;
    const std::string errors = broker.process().errors();
    for (std::size_t at = errors.find(text); at != std::string::npos; at = errors.find(text, at + 1))
        ++count;
    return count;
}

// ----------------------------------------------------------------------------------------------- bystander

Bystander::Bystander(RawRequester& requester) : mRequester(requester)
{
    mClient->registerListener(&mListener, &mThread);
    mClient->registerForStatus(&mListener, "bystander");
    EXPECT_TRUE(mListener.waitForUpdates(1));
}

Bystander::~Bystander()
{
    mClient->unregisterListener(&mListener);
    mThread.stop();
}

bool Bystander::wasClosedForMemory()
{
    return brokerStatistic(mRequester, "limit.memory") != 0;
}

void Bystander::expectServed(int times)
{
    using std::chrono::milliseconds;
    for (; times > 0; --times)
    {
        const std::string value = std::to_string(++mNumber);
        mClient->postStatus("bystander", value);
        // A broker that gets little of the processor cannot vouch for a post within a second while others
        // flood it, and says so each time. The post must arrive even so.
        const auto isConfirmed = [&]
        { return mClient->sync(static_cast<int>(milliseconds(testDeadline).count())); };
        const auto hasArrived = [&] { return mClient->getClientInfoValue("bystander") == value; };
        ASSERT_TRUE(eventually([&] { return isConfirmed() || hasArrived() || wasClosedForMemory(); }));
        ASSERT_TRUE(eventually(hasArrived));
        ASSERT_TRUE(mListener.waitForValue("bystander", value));
    }
}

// -------------------------------------------------------------------------------------------------- memory

BrokerMemory::BrokerMemory(pid_t broker) : mBroker(std::to_string(broker))
{
    resetPeakMemory(mBroker);
    mIdle = resident();
}

void BrokerMemory::expectPeakWithin(std::size_t bytes) const
{
    EXPECT_TRUE(!isMemoryTelling || peak() <= mIdle + bytes) << peak() << ", idle: " << mIdle;
}

void BrokerMemory::expectReturnTo(std::size_t bytes) const
{
    EXPECT_TRUE(!isMemoryTelling || eventually([&] { return resident() <= mIdle + bytes; }))
        << resident() << ", idle: " << mIdle;
}
