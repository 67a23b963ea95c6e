#ifndef BROKER_PATIENCE_H
#define BROKER_PATIENCE_H

#include <algorithm>
#include <cstddef>

#include "daemon/Clock.h"

/// How long requests wait for one post connection to answer a PING.
///
/// A connection begins with little patience. Each answer in time increases it, and a missed answer takes most
/// of it. It also pays for each wait: first from the time earned by posting, then from a small share. So a
/// slow client that posts much is waited for. A client that answers late on purpose, or never, first costs
/// others a part of a second. After that it costs a hundredth of the time.
class Patience
{
public:
    using Duration = std::chrono::microseconds;

    static constexpr Duration atFirst{25000};
    static constexpr Duration longest{100000};

    /// A wait of up to this length costs nothing.
    static constexpr Duration shortest{1000};

    /// A "Sync" is the client's explicit barrier, and waits longer by this factor.
    static constexpr int syncFactor = 10;

    static constexpr Duration wholeShare{250000};

    explicit Patience(TimePoint now) : mSince(now) {}

    /// How long a query waits now.
    /// @param shared the time that all connections together have left
    Duration limit(Duration shared, TimePoint now)
    {
        refill(now);
        return std::clamp(mEarned + std::min(mShare, shared), shortest, mQuickness);
    }

    /// Posts have come.
    void received(std::size_t bytes)
    {
        constexpr std::size_t bytesPerMicrosecond = 16;
        mBytes += bytes;
        mEarned = std::min(longest, mEarned + Duration(mBytes / bytesPerMicrosecond));
        mBytes %= bytesPerMicrosecond;
    }

    /// The connection has answered, after this time.
    void answered(Duration after)
    {
        if (after <= mQuickness)
            mQuickness = std::min(longest, 2 * mQuickness);
    }

    /// The connection has not answered in time.
    void disappointed() { mQuickness = std::max(shortest, mQuickness / 4); }

    /// Others have waited for the connection. Returns the part charged to all connections together.
    Duration spend(Duration time, TimePoint now)
    {
        refill(now);
        const Duration earned = std::min(time, mEarned);
        mEarned -= earned;
        const Duration rest = time - earned;
        mShare = std::max(Duration(0), mShare - rest);
        return rest;
    }

private:
    void refill(TimePoint now)
    {
        constexpr int part = 100;
        const auto passed = std::chrono::duration_cast<Duration>(now - mSince) / part;
        if (passed.count() <= 0)
            return;
        mShare = std::min(wholeShare, mShare + passed);
        mSince = now;
    }

    Duration mQuickness = atFirst;
    Duration mEarned{0};
    std::size_t mBytes = 0; ///< too few to have earned a microsecond
    Duration mShare = wholeShare;
    TimePoint mSince;
};

/// Bounds the time lost to all connections together. Each new connection has a share of its own, and there
/// may be any number of them. So at most a twentieth of the time is spent waiting for nothing.
class SharedPatience
{
public:
    using Duration = Patience::Duration;

    static constexpr Duration most{1000000};

    explicit SharedPatience(TimePoint now) : mSince(now) {}

    /// The time left for a wait that may be in vain.
    Duration left(TimePoint now)
    {
        constexpr int share = 20;
        const auto passed = std::chrono::duration_cast<Duration>(now - mSince) / share;
        if (passed.count() > 0)
        {
            mLeft = std::min(most, mLeft + passed);
            mSince = now;
        }
        return mLeft;
    }

    void spend(Duration time) { mLeft = std::max(Duration(0), mLeft - time); }

private:
    Duration mLeft = most;
    TimePoint mSince;
};

#endif
