#include "broker/CatchUp.h"

#include <algorithm>

void CatchUp::acknowledged(uint64_t revision, TimePoint now)
{
    forgetOld(now);
    if (mAwaited.empty() || mAwaited.back().since + together <= now)
    {
        mAwaited.push_back({revision, now, now});
        return;
    }
    mAwaited.back().last = now;
    ++mAwaited.back().waiting;
}

void CatchUp::disconnected(uint64_t revision, TimePoint now, std::chrono::seconds memory)
{
    forgetOld(now);
    const TimePoint forgotten = now + memory;
    if (mReturning)
        mReturning = {std::min(mReturning->revision, revision), std::max(mReturning->forgotten, forgotten)};
    else
        mReturning = {revision, forgotten};
}

std::optional<uint64_t> CatchUp::subscribed(TimePoint now)
{
    const std::optional<uint64_t> revision = leastAwaited(now);
    markLastServed(now);
    return revision;
}

std::optional<uint64_t> CatchUp::leastAwaited(TimePoint now)
{
    forgetOld(now);
    std::optional<uint64_t> revision;
    if (mReturning)
        revision = mReturning->revision;
    if (!mAwaited.empty())
        revision = std::min(revision.value_or(mAwaited.front().revision), mAwaited.front().revision);
    return revision;
}

void CatchUp::forgetOld(TimePoint now)
{
    mAwaited.erase(std::remove_if(mAwaited.begin(), mAwaited.end(),
                                  [now](const Awaited& clients) { return clients.isOld(now); }),
                   mAwaited.end());
    if (mReturning && mReturning->forgotten <= now)
        mReturning.reset();
}

void CatchUp::markLastServed(TimePoint now)
{
    const auto last = std::find_if(mAwaited.rbegin(), mAwaited.rend(),
                                   [](const Awaited& clients) { return clients.waiting != 0; });
    if (last == mAwaited.rend())
        return;
    --last->waiting;
    last->graceEnd = now + graceTime;
}
