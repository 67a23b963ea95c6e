#include "statusctl/health/RoundTrips.h"

#include <algorithm>
#include <vector>

RoundTrips RoundTrips::measure(Device& device, unsigned count)
{
    std::vector<std::chrono::microseconds> times;
    times.reserve(count);
    for (unsigned number = 0; number < count; ++number)
    {
        // A key that never exists is the cheapest query. Only the call itself is timed.
        times.push_back(device.ask(
            [](StatusManager& manager)
            {
                const auto begin = std::chrono::steady_clock::now();
                manager.getClientInfoValue("");
                return std::chrono::ceil<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
            }));
    }
    std::sort(times.begin(), times.end());
    return {times.front(), times[times.size() / 2], times.back()};
}
