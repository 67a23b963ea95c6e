#ifndef STATUSCTL_HEALTH_ROUNDTRIPS_H
#define STATUSCTL_HEALTH_ROUNDTRIPS_H

#include <chrono>

#include "statusctl/device/Device.h"

/// The times of queries, there and back.
struct RoundTrips
{
    std::chrono::microseconds least;
    std::chrono::microseconds median;
    std::chrono::microseconds most;

    /// @param count at least 1
    static RoundTrips measure(Device& device, unsigned count);
};

#endif
