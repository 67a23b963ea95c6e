#ifndef BROKER_BACKLOG_H
#define BROKER_BACKLOG_H

#include <algorithm>
#include <chrono>
#include <cstdint>

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

    /// It also goes on if the broker has looked for more only once since. The time alone says nothing: a
    /// broker that has to wait for the processor may have let it pass without a look.
    static constexpr uint64_t looksAllowed = 1;

    /// No backlog counts for longer. A peer that posts without a pause has one all the time.
    static constexpr std::chrono::seconds longest{2};

    /// The broker has read.
    /// @param isMore more had arrived than was read
    /// @param look   number of the broker's look at its connections that showed what was read
    void read(bool isMore, TimePoint now, uint64_t look)
    {
        if (isMore && !isOn(now, look))
            mBegin = now;
        if (!isMore && mIsMore)
        {
            mReadOut = now;
            mLookAtReadOut = look;
        }
        mIsMore = isMore;
    }

    /// The earliest time at which a peer may have ended whose end shows now.
    /// @param look number of the broker's look that showed the end
    TimePoint earliestEnd(TimePoint now, uint64_t look) const
    {
        return isOn(now, look) ? std::max(mBegin, now - longest) : now;
    }

private:
    bool isOn(TimePoint now, uint64_t look) const
    {
        const bool wasJustReadOut =
            now - mReadOut <= allowance || (mLookAtReadOut != 0 && look <= mLookAtReadOut + 1 + looksAllowed);
        return mIsMore || wasJustReadOut;
    }

    TimePoint mBegin{};
    TimePoint mReadOut{};
    uint64_t mLookAtReadOut = 0; ///< 0 if there was no backlog yet
    bool mIsMore = false;
};

#endif
