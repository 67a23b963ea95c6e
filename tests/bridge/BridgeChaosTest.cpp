#include <algorithm>
#include <random>

#include "protocol/ClientDocuments.h"
#include "tests/bridge/BridgeFixture.h"
#include "tests/bridge/CuttingProxy.h"

namespace
{

class BridgeChaosTest : public BridgeTest
{
protected:
    void SetUp() override
    {
        mServerPort = mNetwork.port();
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
        const unsigned victim = random(4);
        if (victim == 3)
            disturbNetwork();
        else if (victim == 0)
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

    // The next kind of disturbance, or an undisturbed network, ends the one before.
    void disturbNetwork()
    {
        constexpr std::size_t mostBytes = 3000;
        mNetwork.pass();
        const unsigned kind = random(4);
        if (kind == 0)
            mNetwork.cutAfter(random(mostBytes));
        else if (kind == 1)
            mNetwork.stall();
        else if (kind == 2)
            mNetwork.delay(std::chrono::milliseconds(random(50)));
        else
            mNetwork.cutAll();
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

    CuttingProxy mNetwork{mServer.port()};
    const unsigned mSeed = std::random_device()();
    std::mt19937 mRandom{mSeed};
};

TEST_F(BridgeChaosTest, afterKillsAndCutsInRandomOrderTheServerHasTheDevicesState)
{
    SCOPED_TRACE("seed " + std::to_string(mSeed));
    constexpr int rounds = 16;
    for (int round = 0; round < rounds; ++round)
    {
        for (unsigned changes = random(30); changes > 0; --changes)
            changeSomething();
        killSomething();
    }
    mNetwork.pass();
    post("last", "1");
    MqttObserver observer(mServer.port());
    EXPECT_TRUE(
        observer.waitFor([&] { return isOnline(observer) && statusOn(observer) == valuesOnDevice(); }));
    EXPECT_EQ(statusOn(observer).count("last"), 1U);
}

} // namespace
