#include "broker/CatchUp.h"

void CatchUp::acknowledged(uint64_t revision, TimePoint now)
{
    mAcknowledged.push_back({revision, now});
}

std::optional<uint64_t> CatchUp::revisionFor(TimePoint now)
{
    while (!mAcknowledged.empty() && now - mAcknowledged.front().time > longestWait)
        mAcknowledged.pop_front();
    if (mAcknowledged.empty())
        return std::nullopt;
    return mAcknowledged.front().revision;
}
