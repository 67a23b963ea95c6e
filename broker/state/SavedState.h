#ifndef BROKER_STATE_SAVEDSTATE_H
#define BROKER_STATE_SAVEDSTATE_H

#include <cstdint>
#include <map>
#include <string>

#include "statusmanager/StatusTypes.h"

/// The state of the device, or the changed part of it, as plain values that can be kept.
struct SavedState
{
    /// A stopwatch.
    struct Timer
    {
        uint64_t accumulated = 0; ///< microseconds, without the span under way
        uint64_t spanStart = 0;   ///< of the span under way, microseconds of the monotonic clock; 0: stopped
        uint64_t lastStarted = 0; ///< microseconds since the Unix epoch; 0: never
    };

    StatusMap values;
    std::map<std::string, Timer> timers;
    std::map<std::string, uint32_t> counters;

    bool empty() const { return values.empty() && timers.empty() && counters.empty(); }
};

#endif
