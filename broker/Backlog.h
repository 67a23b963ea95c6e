#ifndef BROKER_BACKLOG_H
#define BROKER_BACKLOG_H

#include <algorithm>
#include <chrono>

#include "daemon/Clock.h"

/// Since when a connection has had more to read than the broker has read. The end of a peer shows only behind
/// everything that the peer has sent, so the peer may have ended when its backlog began. No sockets: it gets
/// what was read as arguments.
class Backlog
{
public:
    /// A backlog that is read to its end goes on if more arrives within this time: it may have waited in the
    /// peer's kernel.
    static constexpr std::chrono::milliseconds allowance{10};

    /// No backlog counts for longer. A peer that posts without a pause has one all the time.
    static constexpr std::chrono::seconds longest{2};

    /// The broker has read.
    /// @param isMore more had arrived than was read
    void read(bool isMore, TimePoint now)
    {
        if (isMore && !isOn(now))
            mBegin = now;
        if (!isMore && mIsMore)
            mReadOut = now;
        mIsMore = isMore;
    }

    /// The earliest time at which a peer may have ended whose end shows now.
    TimePoint earliestEnd(TimePoint now) const { return isOn(now) ? std::max(mBegin, now - longest) : now; }

private:
    bool isOn(TimePoint now) const { return mIsMore || now - mReadOut <= allowance; }

    TimePoint mBegin{};
    TimePoint mReadOut{};
    bool mIsMore = false;
};

#endif
