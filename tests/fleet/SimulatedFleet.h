#ifndef TESTS_FLEET_SIMULATEDFLEET_H
#define TESTS_FLEET_SIMULATEDFLEET_H

#include <deque>

#include "tests/fleet/SimulatedDevice.h"

/// Many devices, and the loop that all their bridges share.
class SimulatedFleet
{
public:
    /// Allows this process as many descriptors as the system does.
    SimulatedFleet();

    /// Adds a device, which is not started yet.
    SimulatedDevice& add(BridgeOptions options);

    std::deque<SimulatedDevice>& devices() { return mDevices; }
    const std::deque<SimulatedDevice>& devices() const { return mDevices; }

    /// Works for each device that has something to do. Waits at most `most` for that.
    void turn(std::chrono::milliseconds most);

    /// Works until the condition holds. Returns false at the deadline.
    template <typename Condition>
    bool runUntil(Condition condition, Clock::duration deadline)
    {
        constexpr std::chrono::milliseconds most{20};
        const TimePoint end = Clock::now() + deadline;
        while (!condition())
        {
            if (Clock::now() >= end)
                return false;
            turn(most);
        }
        return true;
    }

private:
    std::deque<SimulatedDevice> mDevices;
};

#endif
