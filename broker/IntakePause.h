#ifndef BROKER_INTAKEPAUSE_H
#define BROKER_INTAKEPAUSE_H

#include <algorithm>

#include "daemon/Clock.h"

/// Decides when to leave posts unread for a while. So a subscriber that is merely slower than a burst still
/// gets all of it. Requests are served meanwhile.
///
/// The intake pauses for at most 500 ms in all. The budget refills at 250 ms per second without a pause.
/// Beyond the budget, slow subscribers fall behind.
class IntakePause
{
public:
    using Duration = std::chrono::microseconds;

    static constexpr Duration most{500000};
    static constexpr int share = 4;

    /// A pause is reconsidered after this time: the subscriber may have stopped reading.
    static constexpr Duration step{10000};

    explicit IntakePause(TimePoint now) : mSince(now) {}

    /// @param backlog bytes of the notification log held for the slowest subscriber that still reads
    /// @param limit of the log
    /// @returns whether to pause the intake from now on
    bool decide(std::size_t backlog, std::size_t limit, TimePoint now)
    {
        const auto passed = std::chrono::duration_cast<Duration>(now - mSince);
        mSince = now;
        mLeft = mIsPaused ? mLeft - passed : std::min(most, mLeft + passed / share);
        // The two thresholds differ, or the pause would begin and end all the time.
        const bool isLong = backlog > (mIsPaused ? limit / 2 : limit / 4 * 3);
        mIsPaused = isLong && mLeft > (mIsPaused ? Duration(0) : most / share);
        return mIsPaused;
    }

    bool isPaused() const { return mIsPaused; }

    /// When to decide again.
    TimePoint due() const { return mIsPaused ? mSince + std::min(mLeft, step) : TimePoint::max(); }

private:
    bool mIsPaused = false;
    Duration mLeft = most;
    TimePoint mSince;
};

#endif
