#ifndef STATUSCTL_VERBS_STALENESS_H
#define STATUSCTL_VERBS_STALENESS_H

#include <mutex>
#include <vector>

#include "statusctl/base/Settings.h"
#include "statusctl/device/Change.h"
#include "statusctl/device/StaleKeys.h"

/// Finds the keys of a feed that have not been posted for too long, by asking the broker when that may be.
class Staleness
{
public:
    using Clock = StaleKeys::Clock;

    /// @param settings must outlive it
    Staleness(const Settings& settings, Clock::duration longest);

    /// To be called with all that the feed tells, on any thread.
    void hear(const Change& change);

    Clock::time_point nextLook();

    /// The keys that have become stale. A broker that has gone is asked again later.
    /// @throws Failure if the broker cannot tell
    std::vector<Change> look();

private:
    const Settings& mSettings;
    const Clock::duration mPause; ///< at least between two looks
    Clock::time_point mNotBefore{};
    bool mHasAsked = false;

    std::mutex mMutex;
    StaleKeys mKeys;
    bool mIsSynced = false;
};

#endif
