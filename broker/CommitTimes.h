#ifndef BROKER_COMMITTIMES_H
#define BROKER_COMMITTIMES_H

#include "daemon/Clock.h"

/// When to write the state file although no value changed: to record that time passes, or to retry a failed
/// write.
class CommitTimes
{
public:
    /// How often to record that time passes, while timers run.
    static constexpr std::chrono::seconds momentPause{60};

    /// How long to wait after a failed write before the next attempt.
    static constexpr std::chrono::seconds rewritePause{1};

    /// There was an attempt to write.
    void tried(TimePoint now) { mTried = now; }

    /// There was an attempt because due() had come.
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
