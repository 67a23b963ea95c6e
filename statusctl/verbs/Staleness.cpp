#include "statusctl/verbs/Staleness.h"

#include <algorithm>
#include <chrono>

#include "statusctl/base/Failure.h"
#include "statusctl/health/Details.h"

namespace
{

constexpr std::chrono::milliseconds longestPause{100};
constexpr std::chrono::seconds pauseWithoutBroker{1};

StaleKeys::Found foundOf(const Details& details, Timestamp::Time asked)
{
    if (details.posted == 0)
        return {std::nullopt, details.posts};
    return {asked - Timestamp::Time(std::chrono::microseconds(details.posted)), details.posts};
}

} // namespace

Staleness::Staleness(const Settings& settings, Clock::duration longest)
    : mSettings(settings), mPause(std::min<Clock::duration>(longest / 10, longestPause)), mKeys(longest)
{
}

void Staleness::hear(const Change& change)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (isMark(change.kind))
        mIsSynced = true; // stays true: if the broker goes, look() tries again later
    else if (change.kind == Change::Kind::Gone)
        mKeys.remove(change.name);
    else if (change.kind == Change::Kind::Initial)
        mKeys.add(change.name, Clock::now());
    else if (change.kind != Change::Kind::Event)
        mKeys.posted(change.name, Clock::now());
}

StaleKeys::Clock::time_point Staleness::nextLook()
{
    constexpr std::chrono::milliseconds aMoment{20};
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(mMutex);
    // The first look shows whether the broker knows the request.
    return std::max(mIsSynced && mHasAsked ? mKeys.nextLook(now) : now + aMoment, mNotBefore);
}

std::vector<Change> Staleness::look()
{
    const Clock::time_point asked = Clock::now();
    const Timestamp::Time time = Timestamp::now();
    std::vector<std::string> due;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        due = mKeys.due(asked);
    }
    if (asked < mNotBefore || (due.empty() && mHasAsked))
        return {};
    Details::ByKey found;
    try
    {
        found = Details::of(mSettings, {due.begin(), due.end()});
        mHasAsked = true;
        mNotBefore = asked + mPause;
    }
    catch (const Failure& failure)
    {
        if (failure.code() != ExitCode::Unreachable && failure.code() != ExitCode::TimedOut)
            throw;
        mNotBefore = Clock::now() + pauseWithoutBroker;
        return {};
    }

    std::vector<Change> stale;
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const std::string& key : due)
    {
        const auto details = found.find(key);
        if (details == found.end())
            mKeys.remove(key);
        else if (mKeys.looked(key, foundOf(details->second, time), asked))
            stale.push_back({time, Change::Kind::Stale, key, details->second.value});
    }
    return stale;
}
