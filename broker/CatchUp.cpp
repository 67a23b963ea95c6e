#include "broker/CatchUp.h"

#include <algorithm>

void CatchUp::acknowledged(uint64_t revision, TimePoint now)
{
    forgetOld(now);
    mAcknowledged.push_back({revision, now + longestWait, false});
}

std::optional<uint64_t> CatchUp::subscribed(TimePoint now)
{
    forgetOld(now);
    if (mAcknowledged.empty())
        return std::nullopt;
    markLastServed(now);
    return mAcknowledged.front().revision;
}

void CatchUp::forgetOld(TimePoint now)
{
    const auto isOld = [now](const Acknowledged& client) { return client.forgotten <= now; };
    mAcknowledged.erase(std::remove_if(mAcknowledged.begin(), mAcknowledged.end(), isOld),
                        mAcknowledged.end());
}

void CatchUp::markLastServed(TimePoint now)
{
    const auto last = std::find_if(mAcknowledged.rbegin(), mAcknowledged.rend(),
                                   [](const Acknowledged& client) { return !client.served; });
    if (last == mAcknowledged.rend())
        return;
    last->served = true;
    last->forgotten = std::min(last->forgotten, now + TimePoint::duration(graceTime));
}
