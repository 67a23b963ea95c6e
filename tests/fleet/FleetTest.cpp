#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <unistd.h>

#include "common/Logging.h"
#include "mqttlink/Topics.h"
#include "statusfleet/FleetView.h"
#include "tests/bridge/CuttingProxy.h"
#include "tests/bridge/MqttServer.h"
#include "tests/fleet/FleetObserver.h"
#include "tests/fleet/SimulatedFleet.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

/// A number from the environment.
long numberOf(const char* name, long usual)
{
    const char* text = std::getenv(name);
    return text == nullptr ? usual : std::atol(text);
}

/// Temporary folders are in memory: the devices have their own storage each, the test has one for all.
struct Memory
{
    Memory()
    {
        if (access("/dev/shm", W_OK) == 0)
            setenv("TMPDIR", "/dev/shm", 0);
    }
};

/// Many devices behind a bad network, and one server.
class FleetTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ov_log_set_sink([](const ov_log_record*, void*) {}, nullptr); // thousands of cuts
        const long count = numberOf("FLEET_DEVICES", 100);
        for (long i = 0; i < count; ++i)
            mFleet.add(optionsOf(i)).start();
        mEvents.resize(static_cast<std::size_t>(count));
    }

    BridgeOptions optionsOf(long number)
    {
        constexpr long documents = 10; // each tenth device
        BridgeOptions options;
        options.server = "127.0.0.1";
        options.port = mNetwork.port();
        options.isInsecure = true;
        options.device = "device" + std::to_string(number);
        options.longestPause = std::chrono::seconds(4);
        options.onlineExpiry = std::chrono::seconds(0);
        options.file = mFolder / options.device;
        options.mostEvents = 20; // some are dropped
        options.eventRate = 1000;
        options.batch = std::chrono::milliseconds(100);
        if (number % documents == 0)
            options.layout = BridgeOptions::Layout::Document;
        return options;
    }

    unsigned random(std::size_t below) { return static_cast<unsigned>(mRandom() % below); }
    SimulatedDevice& anyDevice() { return mFleet.devices()[random(mFleet.devices().size())]; }

    std::string anyText()
    {
        std::string text;
        for (unsigned length = random(20) == 0 ? random(5000) : 1 + random(12); length > 0; --length)
            text += static_cast<char>('!' + random('~' - '!'));
        return text;
    }

    void changeSomething()
    {
        static const char* const keys[] = {"door",
                                           "lamp",
                                           "a/b",
                                           "50%",
                                           "gr\xc3\xb6\xc3\x9f"
                                           "e",
                                           "$x",
                                           "#+"};
        SimulatedDevice& device = anyDevice();
        device.change(keys[random(std::size(keys))], random(5) == 0 ? "" : anyText());
        if (random(3) == 0)
            anyDevice().event();
    }

    // A burst of events while a device cannot send is what fills its ring.
    void burst()
    {
        SimulatedDevice& device = anyDevice();
        for (unsigned events = random(40); events > 0; --events)
            device.event();
    }

    void disturb()
    {
        constexpr std::size_t mostBytes = 20000;
        switch (random(12))
        {
        case 0:
            mNetwork.cutAll();
            break;
        case 1:
            mNetwork.stall();
            break;
        case 2:
            restartServer();
            break;
        case 3:
        case 4:
        case 5:
            mNetwork.cutAfter(random(mostBytes));
            break;
        case 6:
        case 7:
            for (std::size_t i = mFleet.devices().size() / 20; i > 0; --i)
                anyDevice().kill();
            break;
        default:
            startAll();
            mNetwork.pass();
        }
    }

    void restartServer()
    {
        mServer.stop(SIGTERM); // it keeps what the observer has not got
        mServer.start();
        ++mRestarts;
    }

    void startAll()
    {
        for (SimulatedDevice& device : mFleet.devices())
        {
            if (!device.isRunning())
                device.start();
        }
    }

    void turn()
    {
        constexpr std::chrono::milliseconds most{10};
        mFleet.turn(most);
        mObserver.work();
    }

    template <typename Condition>
    bool runUntil(Condition condition)
    {
        return eventually([&] { return condition() || (turn(), false); }, 6 * testDeadline);
    }

    // ---- What the observer has seen

    void take(const std::string& topic, const std::string& payload)
    {
        mView.take({topic, payload, false, std::nullopt});
        const std::size_t device = numberIn(topic, "device");
        if (topic.find("/event/") != std::string::npos)
            mEvents.at(device).insert(static_cast<int64_t>(numberIn(payload, "\"value\":\"")));
    }

    static std::size_t numberIn(const std::string& text, const std::string& behind)
    {
        const std::size_t at = text.find(behind);
        return at == std::string::npos ? 0 : std::strtoul(text.c_str() + at + behind.size(), nullptr, 10);
    }

    const DeviceView* viewOf(const SimulatedDevice& device) const
    {
        return mView.find(device.options().device);
    }

    static bool isSame(const SimulatedDevice& device, const DeviceView* view)
    {
        return view != nullptr && view->isOnline && view->values == device.values();
    }

    // How many devices are not in the view as they are.
    std::size_t differences(const FleetView& view) const
    {
        const auto differs = [&](const SimulatedDevice& device)
        { return !isSame(device, view.find(device.options().device)); };
        const auto& devices = mFleet.devices();
        return static_cast<std::size_t>(std::count_if(devices.begin(), devices.end(), differs));
    }

    std::size_t differences() const { return differences(mView); }

    // What differs, for the message of a failure.
    std::string describe(const FleetView& view) const
    {
        std::string text = std::to_string(differences(view)) + " devices differ:";
        for (const SimulatedDevice& device : mFleet.devices())
        {
            const DeviceView* const found = view.find(device.options().device);
            if (isSame(device, found))
                continue;
            text += "\n" + device.options().device;
            if (found == nullptr)
            {
                text += " is unknown";
                continue;
            }
            text += found->isOnline ? " is online" : " is offline";
            text += ", session " + std::to_string(found->session) + ", values of session " +
                    std::to_string(found->valuesSession) + " up to " + std::to_string(found->sequence);
            for (const auto& [key, value] : device.values())
            {
                const auto other = found->values.find(key);
                if (other == found->values.end() || other->second != value)
                    text += "\n  " + key + " is " + value.substr(0, 20) + ", but there " +
                            (other == found->values.end() ? "it is not" : other->second.substr(0, 20));
            }
            for (const auto& [key, value] : found->values)
            {
                if (device.values().count(key) == 0)
                    text += "\n  " + key + " is only there, as " + value.substr(0, 20);
            }
        }
        return text;
    }

    // Events that are neither on the server nor counted as dropped. An event that has arrived may be dropped,
    // too, if the bridge does not know that yet.
    int64_t missingEvents() const
    {
        int64_t missing = 0;
        for (std::size_t i = 0; i < mFleet.devices().size(); ++i)
        {
            const SimulatedDevice& device = mFleet.devices()[i];
            const DeviceView* const view = viewOf(device);
            const auto there = static_cast<int64_t>(mEvents[i].size());
            const int64_t dropped = view == nullptr ? 0 : view->eventsDropped;
            missing += std::max<int64_t>(device.events() - there - dropped, 0);
        }
        return missing;
    }

    void askForBirths()
    {
        for (const SimulatedDevice& device : mFleet.devices())
        {
            if (device.options().layout == BridgeOptions::Layout::Document)
                mObserver.publish(Topics("fleet", device.options().device).rebirth(), "now");
        }
    }

    const unsigned mSeed = static_cast<unsigned>(numberOf("FLEET_SEED", std::random_device()()));
    std::mt19937 mRandom{mSeed};
    const Memory mMemory;
    TemporaryFolder mFolder;
    SimulatedFleet mFleet; // allows the server as many descriptors, too
    MqttServer mServer{"allow_anonymous true\nmax_queued_messages 0\nmax_inflight_messages 100\n"
                       "autosave_on_changes false\nautosave_interval 1800\n"};
    CuttingProxy mNetwork{mServer.port()};
    FleetView mView{"fleet"};
    std::vector<std::set<int64_t>> mEvents; // of each device, that have arrived
    std::size_t mRestarts = 0;
    FleetObserver mObserver{mServer.port(), "observer", "fleet/#",
                            [this](const std::string& topic, const std::string& payload)
                            { take(topic, payload); }};
};

// 100 devices and 30 seconds, or FLEET_DEVICES and FLEET_SECONDS of the environment.
TEST_F(FleetTest, afterCutsKillsAndRestartsTheServerHasEachDevice)
{
    SCOPED_TRACE("FLEET_SEED=" + std::to_string(mSeed));
    ASSERT_TRUE(runUntil([this] { return differences() == 0; })); // all have come online
    const TimePoint end = Clock::now() + std::chrono::seconds(numberOf("FLEET_SECONDS", 30));
    TimePoint nextDisturbance = Clock::now();
    std::size_t disturbances = 0;
    while (Clock::now() < end)
    {
        for (unsigned changes = random(10); changes > 0; --changes)
            changeSomething();
        if (random(10) == 0)
            burst();
        if (Clock::now() >= nextDisturbance)
        {
            disturb();
            ++disturbances;
            nextDisturbance = Clock::now() + std::chrono::milliseconds(random(1000));
        }
        turn();
    }
    mNetwork.pass();
    startAll();
    EXPECT_TRUE(runUntil([this] { return differences() == 0; })) << describe(mView);
    // `online` counts what was dropped up to the beginning of a session.
    mNetwork.cutAll();
    EXPECT_TRUE(runUntil([this] { return missingEvents() == 0 && differences() == 0; }))
        << missingEvents() << " events are missing, " << describe(mView);
    askForBirths();

    // What a new reader gets.
    FleetView view("fleet");
    FleetObserver reader(mServer.port(), "reader", "fleet/#",
                         [&](const std::string& topic, const std::string& payload) {
                             view.take({topic, payload, false, std::nullopt});
                         });
    EXPECT_TRUE(runUntil(
        [&]
        {
            reader.work();
            return differences(view) == 0;
        }))
        << "A new reader: " << describe(view) << "\nThe observer: " << describe(mView);
    int64_t events = 0;
    int64_t dropped = 0;
    for (const SimulatedDevice& device : mFleet.devices())
    {
        events += device.events();
        dropped += viewOf(device)->eventsDropped;
    }
    std::printf("seed %u, %zu disturbances, %zu restarts, %zu cuts, %lld events, %lld of them dropped\n",
                mSeed, disturbances, mRestarts, mNetwork.cuts(), static_cast<long long>(events),
                static_cast<long long>(dropped));
}

} // namespace
