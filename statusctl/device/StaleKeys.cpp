#include "statusctl/device/StaleKeys.h"

#include <algorithm>

void StaleKeys::add(const std::string& key, Clock::time_point now)
{
    mKeys[key] = {now, now, std::nullopt};
}

void StaleKeys::posted(const std::string& key, Clock::time_point now)
{
    mKeys[key] = {now, now + mLongest, std::nullopt};
}

// No key can become stale sooner than mLongest after it has appeared.
StaleKeys::Clock::time_point StaleKeys::nextLook(Clock::time_point now) const
{
    Clock::time_point next = now + mLongest;
    for (const auto& [name, key] : mKeys)
        next = std::min(next, key.due);
    return next;
}

std::vector<std::string> StaleKeys::due(Clock::time_point now) const
{
    std::vector<std::string> due;
    for (const auto& [name, key] : mKeys)
    {
        if (key.due <= now)
            due.push_back(name);
    }
    return due;
}

bool StaleKeys::looked(const std::string& name, const Found& found, Clock::time_point asked)
{
    const auto entry = mKeys.find(name);
    if (entry == mKeys.end() || entry->second.heard > asked)
        return false;
    Key& key = entry->second;
    const Clock::duration age = found.age.value_or(asked - key.heard);
    const bool isStale = age >= mLongest;
    const bool isTold = isStale && key.staleSince == found.posts;
    key.staleSince = isStale ? std::optional(found.posts) : std::nullopt;
    // A stale key that is posted right now becomes stale again after mLongest.
    key.due = asked + (isStale ? mLongest : mLongest - age);
    return isStale && !isTold;
}
