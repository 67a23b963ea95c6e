#include "broker/CatchUp.h"

#include <algorithm>

void CatchUp::acknowledged(uint64_t revision, TimePoint now)
{
    forgetOld(now);
    mAwaited.push_back({revision, now + longestWait, false});
}

void CatchUp::disconnected(uint64_t revision, TimePoint now, std::chrono::seconds memory)
{
    forgetOld(now);
    mAwaited.push_back({revision, now + memory, true});
}

std::optional<uint64_t> CatchUp::subscribed(TimePoint now)
{
    forgetOld(now);
    if (mAwaited.empty())
        return std::nullopt;
    markLastServed(now);
    return std::min_element(mAwaited.begin(), mAwaited.end(),
                            [](const Awaited& one, const Awaited& other)
                            { return one.revision < other.revision; })
        ->revision;
}

void CatchUp::forgetOld(TimePoint now)
{
    const auto isOld = [now](const Awaited& client) { return client.forgotten <= now; };
    mAwaited.erase(std::remove_if(mAwaited.begin(), mAwaited.end(), isOld), mAwaited.end());
}

void CatchUp::markLastServed(TimePoint now)
{
    const auto last = std::find_if(mAwaited.rbegin(), mAwaited.rend(),
                                   [](const Awaited& client) { return !client.served; });
    if (last == mAwaited.rend())
        return;
    last->served = true;
    last->forgotten = std::min(last->forgotten, now + TimePoint::duration(graceTime));
}
