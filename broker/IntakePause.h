#ifndef BROKER_INTAKEPAUSE_H
#define BROKER_INTAKEPAUSE_H

#include <algorithm>

#include "broker/base/Clock.h"

/// Decides when posts are left unread for a while, so that a subscriber that is merely slower than a burst
/// gets all of it. Requests go on.
///
/// The intake pauses for at most 500 ms in all; a second without a pause gives back 250 ms of that. Beyond
/// it, slow subscribers fall behind.
class IntakePause
{
public:
    using Duration = std::chrono::microseconds;

    static constexpr Duration most{500000};
    static constexpr int share = 4;

    /// While it lasts, it is decided on again after such a time: the subscriber may take nothing any more.
    static constexpr Duration step{10000};

    explicit IntakePause(TimePoint now) : mSince(now) {}

    /// @param backlog so much of the log of notifications is held for the slowest that still takes some
    /// @param limit of the log
    /// @returns whether the intake is to be paused from now on
    bool decide(std::size_t backlog, std::size_t limit, TimePoint now)
    {
        const auto passed = std::chrono::duration_cast<Duration>(now - mSince);
        mSince = now;
        mLeft = mIsPaused ? mLeft - passed : std::min(most, mLeft + passed / share);
        // Begins and ends at different lengths, or it would begin and end all the time.
        const bool isLong = backlog > (mIsPaused ? limit / 2 : limit / 4 * 3);
        mIsPaused = isLong && mLeft > (mIsPaused ? Duration(0) : most / share);
        return mIsPaused;
    }

    bool isPaused() const { return mIsPaused; }

    /// When it is to be decided on again.
    TimePoint due() const { return mIsPaused ? mSince + std::min(mLeft, step) : TimePoint::max(); }

private:
    bool mIsPaused = false;
    Duration mLeft = most;
    TimePoint mSince;
};

#endif
