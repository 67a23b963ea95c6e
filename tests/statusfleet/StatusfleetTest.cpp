#include <algorithm>
#include <sys/stat.h>

#include "tests/bridge/BridgeFixture.h"

namespace
{

/// The desk, a real server, and a device with a real broker and bridge.
class StatusfleetTest : public BridgeTest
{
protected:
    struct Result
    {
        std::string output;
        std::string errors;
        std::optional<int> exitCode;
    };

    void SetUp() override
    {
        BridgeTest::SetUp();
        configureDesk("insecure = true\n");
    }

    void configureDesk(const std::string& more)
    {
        writeFile(deskFile(), "server = localhost\nport = " + std::to_string(mServerPort) + "\n" + more);
    }

    std::string deskFile() const { return mFolder / "desk.conf"; }

    /// Starts the bridge, and waits until the device is online.
    void startDevice(const std::string& more = "")
    {
        startBridge("insecure = true\n" + more);
        ASSERT_TRUE(mBridge->waitForError("Online at"));
        ASSERT_TRUE(mServerObserver().waitFor([this] { return isOnline(mServerObserver()); }));
    }

    MqttObserver& mServerObserver()
    {
        if (!mObserver)
            mObserver.emplace(mServer.port());
        return *mObserver;
    }

    std::vector<std::string> command(std::vector<std::string> words) const
    {
        words.insert(words.begin(), {STATUSFLEET, "--config", deskFile()});
        return words;
    }

    Result run(const std::vector<std::string>& words)
    {
        TestProcess process(command(words));
        std::string output = process.readRest();
        const std::optional<int> exitCode = process.waitForExit();
        return {output, process.errors(), exitCode};
    }

    /// Expects success, and returns the output.
    std::string outputOf(const std::vector<std::string>& words)
    {
        const Result result = run(words);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        return result.output;
    }

    std::optional<MqttObserver> mObserver;
};

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// -------------------------------------------------------------------------------------------------- looking

TEST_F(StatusfleetTest, devicesAreListedWithTheirCondition)
{
    startDevice();
    const std::string online = outputOf({"devices"});
    EXPECT_TRUE(has(online, "DEVICE")) << online;
    EXPECT_TRUE(has(online, "truck   online")) << online;
    EXPECT_TRUE(has(online, "1.0.0")) << online;
    const std::string json = outputOf({"devices", "--json"});
    EXPECT_TRUE(has(json, R"("device":"truck")")) << json;
    EXPECT_TRUE(has(json, R"("online":true)")) << json;
    EXPECT_TRUE(has(json, R"("since":)")) << json;
    stopBridge();
    EXPECT_TRUE(has(outputOf({"devices", "tr*"}), "truck   offline"));
    EXPECT_EQ(run({"devices", "ship"}).exitCode, 3);
}

TEST_F(StatusfleetTest, aValueIsPrintedAsItIs)
{
    post("door", "open");
    startDevice();
    EXPECT_EQ(outputOf({"get", "truck", "door"}), "open\n");
    EXPECT_EQ(outputOf({"get", "truck", "door", "--json"}), "{\"values\":{\"door\":\"open\"}}\n");
}

TEST_F(StatusfleetTest, aMissingKeyOrDeviceEndsWithThree)
{
    post("door", "open");
    startDevice();
    const Result key = run({"get", "truck", "lamp"});
    EXPECT_EQ(key.exitCode, 3);
    EXPECT_EQ(key.errors, "statusfleet: get: no value for \"lamp\"\n");
    EXPECT_EQ(run({"get", "ship", "door"}).exitCode, 3);
    const Result json = run({"get", "truck", "lamp", "--json"});
    EXPECT_TRUE(has(json.errors, R"({"error":{"code":3,)")) << json.errors;
}

TEST_F(StatusfleetTest, aDumpHasAllValuesInBothLayouts)
{
    post("door", "open");
    post("a/b", "1");
    startDevice();
    EXPECT_EQ(outputOf({"dump", "truck"}), "a/b=1\ndoor=open\n");
    stopBridge();
    mBridge.reset();
    startDevice("layout = document\nrebirth-pause = 1\n");
    post("lamp", "on");
    ASSERT_TRUE(mServerObserver().waitFor(
        [this] { return !mServerObserver().payloadsOf("fleet/truck/data").empty(); }));
    EXPECT_EQ(outputOf({"dump", "truck"}), "a/b=1\ndoor=open\nlamp=on\n");
    EXPECT_EQ(outputOf({"get", "truck", "l*"}), "lamp=on\n");
}

TEST_F(StatusfleetTest, aWatchShowsValuesThenChangesAndEvents)
{
    post("door", "open");
    startDevice();
    TestProcess watch(command({"watch", "tr*", "d*", "--json"}));
    const auto next = [&](const std::string& kind)
    {
        std::optional<std::string> line;
        while ((line = watch.readLine()) && !has(*line, "\"kind\":\"" + kind + "\""))
        {
        }
        return line.value_or("");
    };
    EXPECT_TRUE(has(next("value"), R"("value":"open")"));
    post("lamp", "on");
    post("door", "shut");
    EXPECT_TRUE(has(next("value"), R"("device":"truck","key":"door","kind":"value")"));
    postEvent("dawn", "now");
    EXPECT_TRUE(has(next("event"), R"("value":"now")"));
    stopBridge();
    EXPECT_TRUE(has(next("online"), R"("online":false)"));
}

TEST_F(StatusfleetTest, aWatchOutlivesTheServer)
{
    post("door", "open");
    startDevice();
    TestProcess watch(command({"watch", "truck", "door"}));
    const auto shows = [&](const std::string& text)
    {
        std::optional<std::string> line;
        while ((line = watch.readLine()) && !has(*line, text))
        {
        }
        return line.has_value();
    };
    ASSERT_TRUE(shows("truck door=open"));
    const auto isMark = [](const MqttObserver::Message& message)
    { return message.topic.find("/$desk/") != std::string::npos; };
    ASSERT_TRUE(mServerObserver().waitFor( // the server has sent everything that it had
        [&]
        {
            const auto& all = mServerObserver().messages();
            return std::any_of(all.begin(), all.end(), isMark);
        }));
    post("door", "ajar");
    ASSERT_TRUE(shows("truck door=ajar"));
    mServer.stop(SIGKILL);
    ASSERT_TRUE(watch.waitForError("lost the server"));
    mServer.start();
    post("door", "shut");
    EXPECT_TRUE(shows("truck door=shut"));
}

TEST_F(StatusfleetTest, anExportHasDevicesAndNumbers)
{
    post("speed", "12.5");
    post("door", "open");
    startDevice();
    const std::string text = outputOf({"export", "--prometheus"});
    EXPECT_TRUE(has(text, "# TYPE statusfleet_online gauge\nstatusfleet_online{device=\"truck\"} 1\n"))
        << text;
    EXPECT_TRUE(has(text, "statusfleet_value{device=\"truck\",key=\"speed\"} 12.5\n")) << text;
    EXPECT_FALSE(has(text, "door")) << text;
}

// ------------------------------------------------------------------------------------------------- steering

TEST_F(StatusfleetTest, aDesiredValueIsAppliedAndWaitedFor)
{
    startDevice("desired-keys = set.*\n");
    EXPECT_EQ(outputOf({"desired", "truck", "set.lamp", "on", "--wait"}), "");
    EXPECT_EQ(outputOf({"get", "truck", "set.lamp"}), "on\n");
    const std::string json = outputOf({"desired", "truck", "set.lamp", "off", "--wait", "--json"});
    EXPECT_TRUE(has(json, R"("applied":true)")) << json;
}

TEST_F(StatusfleetTest, aDesiredValueWaitsForADeviceThatIsOffline)
{
    outputOf({"desired", "truck", "set.lamp", "on"});
    EXPECT_EQ(run({"desired", "truck", "set.fan", "on", "--wait", "--timeout", "500ms"}).exitCode, 124);
    startDevice("desired-keys = set.*\n");
    EXPECT_TRUE(mServerObserver().waitForValue("fleet/truck/status/set.lamp", "on"));
    EXPECT_TRUE(mServerObserver().waitForValue("fleet/truck/status/set.fan", "on"));
}

TEST_F(StatusfleetTest, aCommandIsAnsweredOrRefused)
{
    startDevice("commands = do.*\n");
    EXPECT_EQ(outputOf({"cmd", "truck", "do.wash", "hot"}), "posted\n");
    EXPECT_TRUE(mServerObserver().waitFor(
        [this] { return !mServerObserver().payloadsOf("fleet/truck/event/do.wash").empty(); }));
    const Result refused = run({"cmd", "truck", "other"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.errors, "statusfleet: cmd: the device refuses the command: not allowed\n");
    EXPECT_EQ(run({"cmd", "ship", "do.wash", "--timeout", "500ms"}).exitCode, 124);
}

// ------------------------------------------------------------------------------------------------- failures

TEST_F(StatusfleetTest, aServerThatIsAwayEndsWithFour)
{
    mServer.stop(SIGKILL);
    const Result result = run({"devices"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_TRUE(has(result.errors, "statusfleet: devices: no connection to the server localhost"))
        << result.errors;
}

TEST_F(StatusfleetTest, wrongUsageEndsWithTwo)
{
    EXPECT_EQ(run({"fly"}).exitCode, 2);
    EXPECT_EQ(run({"get", "truck"}).exitCode, 2);
    EXPECT_EQ(run({"desired", "tr*", "key", "1"}).exitCode, 2);
    configureDesk("colour = red\n");
    const Result result = run({"devices"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(has(result.errors, "desk.conf:3: unknown name \"colour\"")) << result.errors;
}

TEST_F(StatusfleetTest, aRowOfServersIsAskedAsAWhole)
{
    post("door", "open");
    startDevice();
    writeFile(deskFile(),
              "server = 127.0.0.{1..1}\ninsecure = true\nport = " + std::to_string(mServerPort) + "\n");
    EXPECT_TRUE(has(outputOf({"devices"}), "truck   online"));
    EXPECT_EQ(outputOf({"get", "truck", "door"}), "open\n");
}

} // namespace
