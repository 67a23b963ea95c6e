#ifndef BROKER_PATIENCE_H
#define BROKER_PATIENCE_H

#include <algorithm>
#include <cstddef>

#include "broker/base/Clock.h"

/// How long requests wait for one post connection to answer a PING.
///
/// A connection has little of it at first, more with each answer in time, and next to nothing after an answer
/// that did not come. It also pays for each wait: with what it has earned by posting, which takes time to
/// arrive, and else from a small share. So a client that posts much and is slow is waited for. One that
/// answers late on purpose, or never, costs others a part of a second, and then a hundredth of the time.
class Patience
{
public:
    using Duration = std::chrono::microseconds;

    static constexpr Duration atFirst{25000};
    static constexpr Duration longest{100000};

    /// A wait of this length costs nothing.
    static constexpr Duration shortest{1000};

    /// A "Sync" is the client's explicit barrier, and waits longer by this factor.
    static constexpr int syncFactor = 10;

    static constexpr Duration wholeShare{250000};

    explicit Patience(TimePoint now) : mSince(now) {}

    /// How long a query waits now.
    /// @param shared what all connections together have left
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

    /// It has answered, after this time.
    void answered(Duration after)
    {
        if (after <= mQuickness)
            mQuickness = std::min(longest, 2 * mQuickness);
    }

    /// It has not answered in time.
    void disappointed() { mQuickness = std::max(shortest, mQuickness / 4); }

    /// Others have waited for it. Returns the part that all connections together have to bear.
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
    std::size_t mBytes = 0; ///< that have not earned anything yet
    Duration mShare = wholeShare;
    TimePoint mSince;
};

/// How much all connections together may disappoint. New connections have a share of their own, and there
/// may be any number of them: at most a twentieth of the time is spent on waiting for nothing.
class SharedPatience
{
public:
    using Duration = Patience::Duration;

    static constexpr Duration most{1000000};

    explicit SharedPatience(TimePoint now) : mSince(now) {}

    /// The time that is left for a wait that may be in vain.
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
