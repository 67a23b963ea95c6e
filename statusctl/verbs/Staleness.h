#ifndef STATUSCTL_VERBS_STALENESS_H
#define STATUSCTL_VERBS_STALENESS_H

#include <mutex>
#include <vector>

#include "statusctl/base/Settings.h"
#include "statusctl/device/Change.h"
#include "statusctl/device/StaleKeys.h"

/// Finds keys of a feed that have not been posted for too long. It asks the broker only when a key may be
/// stale.
class Staleness
{
public:
    using Clock = StaleKeys::Clock;

    /// @param settings must outlive it
    Staleness(const Settings& settings, Clock::duration longest);

    /// Call it with every change of the feed, on any thread.
    void hear(const Change& change);

    Clock::time_point nextLook();

    /// Returns the keys that have become stale. If the broker has gone, it tries again later.
    /// @throws Failure if the broker does not know the request
    std::vector<Change> look();

private:
    const Settings& mSettings;
    const Clock::duration mPause; ///< at least, between two looks
    Clock::time_point mNotBefore{};
    bool mHasAsked = false;

    std::mutex mMutex;
    StaleKeys mKeys;
    bool mIsSynced = false;
};

#endif
