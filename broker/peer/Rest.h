#ifndef BROKER_PEER_REST_H
#define BROKER_PEER_REST_H

#include <algorithm>

#include "daemon/Clock.h"

/// When the broker may look at processes again. It rests for 20 times what it has taken, so that this costs
/// at most a twentieth of the time. Work that took longer than 5 ms was interrupted, so the excess does not
/// count.
inline TimePoint endOfRest(TimePoint begin, TimePoint end)
{
    constexpr int restFactor = 20;
    constexpr std::chrono::milliseconds longestWork{5};
    return end + restFactor * std::min<Clock::duration>(end - begin, longestWork);
}

#endif
