#include <algorithm>
#include <random>

#include "protocol/ClientDocuments.h"
#include "tests/bridge/BridgeFixture.h"

namespace
{

class BridgeChaosTest : public BridgeTest
{
protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        mBroker->stop();
        startBroker();
        startBridge();
    }

    void startBroker()
    {
        mPoster.reset();
        mBroker.emplace(std::vector<std::string>{"--state", mFolder / "state"});
    }

    unsigned random(unsigned below) { return static_cast<unsigned>(mRandom() % below); }

    void changeSomething()
    {
        const std::string key = "key" + std::to_string(random(20));
        if (random(4) == 0)
            reset(key);
        else
            post(key, std::to_string(random(1000)));
    }

    void killSomething()
    {
        const unsigned victim = random(3);
        if (victim == 0)
        {
            mServer.stop(SIGKILL);
            mServer.start();
        }
        else if (victim == 1)
        {
            killBridge();
            mBridge.emplace(std::vector<std::string>{STATUSBRIDGE, "--config", mFolder / "bridge.conf"});
        }
        else
        {
            mBroker->kill();
            startBroker();
        }
    }

    /// The device's values that are not reset.
    static Values valuesOnDevice()
    {
        Values values = BrokerProtocol::readMapReply(RawRequester().ask(BrokerProtocol::writeGetClientInfo()))
                            .value_or(Values());
        for (auto each = values.begin(); each != values.end();)
            each = each->second.empty() ? values.erase(each) : std::next(each);
        return values;
    }

    const unsigned mSeed = std::random_device()();
    std::mt19937 mRandom{mSeed};
};

TEST_F(BridgeChaosTest, afterKillsInRandomOrderTheServerHasTheDevicesState)
{
    SCOPED_TRACE("seed " + std::to_string(mSeed));
    constexpr int rounds = 12;
    for (int round = 0; round < rounds; ++round)
    {
        for (unsigned changes = random(30); changes > 0; --changes)
            changeSomething();
        killSomething();
    }
    post("last", "1");
    MqttObserver observer(mServer.port());
    EXPECT_TRUE(
        observer.waitFor([&] { return isOnline(observer) && statusOn(observer) == valuesOnDevice(); }));
    EXPECT_EQ(statusOn(observer).count("last"), 1U);
}

} // namespace
