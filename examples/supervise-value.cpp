// Acts on a value: switches the fan on above 70 degrees and off below 60. Runs until SIGINT or SIGTERM.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "StopSignal.h"
#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace
{

constexpr const char* temperature = "temperature.C";
constexpr const char* fan = "fan";

class FanControl : public IStatusUpdateListener
{
public:
    explicit FanControl(StatusManager& manager) : mManager(manager) {}

    void onStatusUpdate(StatusMap updates) override
    {
        const auto reading = updates.find(temperature);
        if (reading == updates.end() || reading->second.empty())
            return; // no value yet, or reset: keep the fan's state
        const double degrees = std::strtod(reading->second.c_str(), nullptr);
        if (degrees > 70)
            switchFan("on");
        else if (degrees < 60)
            switchFan("off");
    }

    void onEventUpdate(std::string, std::string) override {}

private:
    // A callback may post, because posts are queued. Repeated values are harmless, because the broker
    // publishes only changes.
    void switchFan(const char* state)
    {
        mManager.postStatus(fan, state);
        std::printf("fan %s\n", state);
        std::fflush(stdout);
    }

    StatusManager& mManager;
};

} // namespace

int main()
{
    StatusManager& manager = *StatusManager::getInstance(false);
    StopSignal::install();

    FanControl control(manager);
    Orvane::EventThread thread("supervise-value", 0);
    manager.registerListener(&control, &thread);
    manager.registerForStatus(&control, temperature);
    StopSignal::wait();

    manager.unregisterListener(&control);
    thread.stop();            // no callback can post after this
    manager.resetStatus(fan); // the fan is no longer controlled
    constexpr int timeoutMs = 5000;
    return manager.sync(timeoutMs) ? 0 : 1;
}
