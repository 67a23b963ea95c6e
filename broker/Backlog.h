#ifndef BROKER_BACKLOG_H
#define BROKER_BACKLOG_H

#include <chrono>

#include "broker/base/Clock.h"

/// Since when more arrives on a connection than the broker reads. The end of a peer shows only behind all
/// that the peer had sent, so the peer may have ended when the backlog began. No sockets: a plain account.
class Backlog
{
public:
    /// Without a full read for this time, the backlog is over.
    static constexpr std::chrono::milliseconds pause{100};

    /// The broker has read.
    /// @param isFull the buffer was full, so more may be there
    void read(bool isFull, TimePoint now)
    {
        if (!isFull)
            return;
        if (!isBehind(now))
            mBegin = now;
        mLastFull = now;
    }

    /// The earliest time at which a peer may have ended whose end shows now.
    TimePoint earliestEnd(TimePoint now) const { return isBehind(now) ? mBegin : now; }

private:
    bool isBehind(TimePoint now) const { return mLastFull != TimePoint() && now - mLastFull <= pause; }

    TimePoint mBegin{};
    TimePoint mLastFull{};
};

#endif
