#include "tests/broker/attacks/UnderAttack.h"

#include <fstream>

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

void Bystander::expectServed(int times)
{
    using std::chrono::milliseconds;
    for (; times > 0; --times)
    {
        const std::string value = std::to_string(++mNumber);
        mClient->postStatus("bystander", value);
        const bool isConfirmed = mClient->sync(static_cast<int>(milliseconds(testDeadline).count()));
        ASSERT_TRUE(isConfirmed || brokerStatistic(mRequester, "limit.memory") != 0);
        ASSERT_TRUE(eventually([&] { return mClient->getClientInfoValue("bystander") == value; }));
        ASSERT_TRUE(mListener.waitForValue("bystander", value));
    }
}

// -------------------------------------------------------------------------------------------------- memory

BrokerMemory::BrokerMemory(pid_t broker) : mBroker(broker)
{
    const std::string resetPeak = "5";
    std::ofstream("/proc/" + std::to_string(mBroker) + "/clear_refs") << resetPeak;
    mIdle = resident();
}

void BrokerMemory::expectPeakWithin(std::size_t bytes) const
{
    EXPECT_TRUE(!isTelling || read("VmHWM:") <= mIdle + bytes) << read("VmHWM:") << ", idle: " << mIdle;
}

void BrokerMemory::expectReturnTo(std::size_t bytes) const
{
    EXPECT_TRUE(!isTelling || eventually([&] { return resident() <= mIdle + bytes; }))
        << resident() << ", idle: " << mIdle;
}

std::size_t BrokerMemory::read(const std::string& name) const
{
    constexpr std::size_t kibi = 1024;
    std::ifstream status("/proc/" + std::to_string(mBroker) + "/status");
    for (std::string word; status >> word;)
    {
        std::size_t number = 0;
        if (word == name && status >> number)
            return number * kibi;
    }
    ADD_FAILURE() << "no " << name;
    return 0;
}
