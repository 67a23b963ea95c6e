#ifndef BROKER_PATIENCE_H
#define BROKER_PATIENCE_H

#include <algorithm>

#include "broker/base/Clock.h"

/// How long requests wait for one post connection to answer a PING.
///
/// A connection has little of it at first, more with each answer in time, and next to nothing after an answer
/// that did not come. So a client that is slow is waited for, and one that never answers, or sends without an
/// end, costs others some milliseconds and then nothing.
class Patience
{
public:
    using Duration = std::chrono::microseconds;

    static constexpr Duration atFirst{25000};
    static constexpr Duration longest{100000};
    static constexpr Duration shortest{1000};

    /// For a query. A "Sync" is the client's explicit barrier, and waits longer by this factor.
    Duration now() const { return mNow; }
    static constexpr int syncFactor = 10;

    /// It has answered, after this time.
    void answered(Duration after)
    {
        if (after <= mNow)
            mNow = std::min(longest, 2 * mNow);
    }

    /// It has not answered in time.
    void disappointed() { mNow = std::max(shortest, mNow / 4); }

private:
    Duration mNow = atFirst;
};

/// How much all connections together may disappoint. New connections have patience of their own, and there
/// may be any number of them: at most a twentieth of the time is spent on waiting in vain.
class SharedPatience
{
public:
    using Duration = Patience::Duration;

    static constexpr Duration most{1000000};

    explicit SharedPatience(TimePoint now) : mSince(now) {}

    /// What is left for a wait that may be in vain.
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
