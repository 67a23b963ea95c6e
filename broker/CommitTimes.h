#ifndef BROKER_COMMITTIMES_H
#define BROKER_COMMITTIMES_H

#include "broker/base/Clock.h"

/// When the state file is written although nothing has changed: it is told that time goes on, and what could
/// not be written is tried again.
class CommitTimes
{
public:
    /// How often the file is told that time goes on, while timers run.
    static constexpr std::chrono::seconds momentPause{60};

    /// How long after an attempt what could not be written is tried again.
    static constexpr std::chrono::seconds rewritePause{1};

    /// There was an attempt to write.
    void tried(TimePoint now) { mTried = now; }

    /// There was one because it was due.
    void triedAsDue(TimePoint now)
    {
        tried(now);
        mNextMoment = now + momentPause;
    }

    TimePoint due(bool hasRunningTimers, bool isBehind) const
    {
        if (isBehind)
            return mTried + rewritePause;
        return hasRunningTimers ? mNextMoment : TimePoint::max();
    }

private:
    TimePoint mTried{};
    TimePoint mNextMoment{};
};

#endif
