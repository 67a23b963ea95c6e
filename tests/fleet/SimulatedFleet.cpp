#include "tests/fleet/SimulatedFleet.h"

#include <algorithm>
#include <poll.h>
#include <sys/resource.h>
#include <utility>
#include <vector>

SimulatedFleet::SimulatedFleet()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

SimulatedDevice& SimulatedFleet::add(BridgeOptions options)
{
    return mDevices.emplace_back(std::move(options));
}

void SimulatedFleet::turn(std::chrono::milliseconds most)
{
    const TimePoint before = Clock::now();
    TimePoint due = before + most;
    std::vector<pollfd> items;
    items.reserve(mDevices.size());
    for (const SimulatedDevice& device : mDevices)
    {
        items.push_back({device.descriptor(), device.wanted(), 0});
        due = std::min(due, device.due(before));
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(std::max(due, before) - before);
    poll(items.data(), items.size(), static_cast<int>(wait.count()));
    const TimePoint now = Clock::now();
    for (std::size_t i = 0; i < items.size(); ++i)
    {
        if (items[i].revents != 0 || mDevices[i].due(before) <= now)
            mDevices[i].work(items[i].revents, now);
    }
}
