#ifndef MQTTLINK_BACKOFF_H
#define MQTTLINK_BACKOFF_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include "daemon/Clock.h"

/// How long to wait before the next attempt to connect: a random time, up to a bound that doubles with each
/// failure. Without the randomness, all devices of a fleet would return to a restarted server at once.
class Backoff
{
public:
    using Milliseconds = std::chrono::milliseconds;

    /// Returns a random number between 0 and this one.
    using Random = std::function<uint64_t(uint64_t most)>;

    /// A connection that lasted this long was good. A shorter one counts as a failure, so that a server that
    /// accepts and then closes is not asked again and again.
    static constexpr std::chrono::seconds lasting{60};

    Backoff(Random random, Milliseconds most) : mRandom(std::move(random)), mMost(most) {}

    void setMost(Milliseconds most) { mMost = most; }

    /// The pause after a failed attempt, or a connection that ended.
    /// @param lasted how long the connection was usable; 0: not at all
    Milliseconds next(Clock::duration lasted)
    {
        if (lasted >= lasting)
            mBound = first;
        const Milliseconds bound = std::min(mBound, mMost);
        mBound = std::min(2 * bound, mMost);
        return Milliseconds(mRandom(static_cast<uint64_t>(bound.count())));
    }

private:
    static constexpr Milliseconds first{1000};

    Random mRandom;
    Milliseconds mMost;
    Milliseconds mBound = first;
};

#endif
