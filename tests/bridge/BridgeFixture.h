#ifndef TESTS_BRIDGE_BRIDGEFIXTURE_H
#define TESTS_BRIDGE_BRIDGEFIXTURE_H

#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>

#include "tests/bridge/MqttObserver.h"
#include "tests/bridge/MqttServer.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/TemporaryFolder.h"

/// A bridge between a real broker and a real server.
class BridgeFixture : public testing::Test
{
protected:
    using Values = std::map<std::string, std::string>;

    void TearDown() override
    {
        if (HasFailure() && mBridge)
            ADD_FAILURE() << mBridge->errors();
    }

    /// Starts the bridge.
    /// @param more lines of its configuration
    void startBridge(const std::string& more = "insecure = true\n")
    {
        configure(more);
        mBridge.emplace(std::vector<std::string>{STATUSBRIDGE, "--config", mFolder / "bridge.conf"});
    }

    void configure(const std::string& more)
    {
        writeFile(mFolder / "bridge.conf", "server = localhost\ndevice = truck\nlongest-pause = 1\nport = " +
                                               std::to_string(mServerPort) +
                                               "\nfile = " + mFolder / "bridge.db" + "\n" + more);
    }

    void killBridge()
    {
        mBridge->signal(SIGKILL);
        mBridge->waitForExit();
    }

    std::optional<int> stopBridge()
    {
        mBridge->signal(SIGTERM);
        return mBridge->waitForExit();
    }

    void post(const std::string& key, const std::string& value)
    {
        poster().post(R"({"postStatus":{")" + key + R"(":")" + value + R"("}})");
    }

    void reset(const std::string& key) { poster().post(R"({"resetStatus":[")" + key + R"("]})"); }

    void postEvent(const std::string& name, const std::string& value)
    {
        poster().post(R"({"postEvent":{")" + name + R"(":")" + value + R"("}})");
    }

    RawPoster& poster()
    {
        if (!mPoster)
            mPoster.emplace();
        return *mPoster;
    }

    static bool isOnline(const MqttObserver& observer)
    {
        return observer.valueOf("fleet/truck/online").find("\"online\":true") != std::string::npos;
    }

    /// The device's values on the server.
    static Values statusOn(const MqttObserver& observer)
    {
        const std::string root = "fleet/truck/status/";
        Values values;
        for (const auto& [topic, value] : observer.values())
        {
            if (topic.compare(0, root.size(), root) == 0)
                values.emplace(topic.substr(root.size()), value);
        }
        return values;
    }

    static bool waitForStatus(MqttObserver& observer, const Values& values)
    {
        return observer.waitFor([&] { return statusOn(observer) == values; });
    }

    static bool waitUntilOnline(MqttObserver& observer)
    {
        return observer.waitFor([&] { return isOnline(observer); });
    }

    TemporaryFolder mFolder;
    std::optional<BrokerProcess> mBroker{std::in_place};
    std::optional<RawPoster> mPoster;
    int mServerPort = 0;
    std::optional<TestProcess> mBridge;
};

/// The same with a plain server that everybody may use.
class BridgeTest : public BridgeFixture
{
protected:
    void SetUp() override { mServerPort = mServer.port(); }

    MqttServer mServer;
};

#endif
