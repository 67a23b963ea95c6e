// Saving and restoring the state over a restart of the broker.

#include <ctime>
#include <map>
#include <tuple>
#include <utility>

#include "broker/state/DeviceState.h"
#include "broker/state/PosterText.h"
#include "daemon/SystemClock.h"

void DeviceState::restore(const SavedState& state)
{
    for (const auto& [key, text] : state.values)
    {
        if (store(key, text, {}))
            mValues.find(key)->second.history = {}; // unknown
    }
    restoreHistories(state);
    for (const auto& [name, timer] : state.timers)
    {
        if (mayName(mTimers, name, mLimits.timers, Refusal::Timers))
            mTimers[name] = timer;
    }
    for (const auto& [name, number] : state.counters)
    {
        if (mayName(mCounters, name, mLimits.counters, Refusal::Counters))
            mCounters[name] = number;
    }
    mRestored = bootTime();
    mNotesChanges = true;
}

// Equal clients become one entry, which lives while a value holds it.
void DeviceState::restoreHistories(const SavedState& state)
{
    const auto wallNow = static_cast<BootTime>(microsecondsOf(CLOCK_REALTIME));
    const BootTime now = bootTime();
    const auto sinceBoot = [&](uint64_t time)
    {
        const auto onTheWall = static_cast<BootTime>(time);
        const bool isKnown = time != 0 && onTheWall <= wallNow; // otherwise the clock is not set, or was not
                                                                // then
        return isKnown ? now - (wallNow - onTheWall) : unknownTime;
    };
    const auto isLess = [](const BrokerProtocol::Poster& one, const BrokerProtocol::Poster& other)
    {
        return std::tie(one.pid, one.uid, one.user, one.service, one.program) <
               std::tie(other.pid, other.uid, other.user, other.service, other.program);
    };
    std::map<BrokerProtocol::Poster, Posters::Id, decltype(isLess)> entered(isLess);
    const auto hold = [&](const BrokerProtocol::Poster& poster)
    {
        if (poster == BrokerProtocol::Poster())
            return Posters::nobody;
        const auto [place, isNew] = entered.try_emplace(poster);
        if (isNew)
            place->second = mPosters.add(poster);
        mPosters.hold(place->second);
        return place->second;
    };
    for (const auto& [key, detail] : state.details)
    {
        const auto value = mValues.find(key);
        if (value == mValues.end())
            continue;
        const auto clients = PosterText::read(detail.clients).value_or(PosterText::Clients());
        value->second.history = {sinceBoot(detail.posted), sinceBoot(detail.changed), detail.posts,
                                 detail.changes,           hold(clients.poster),      hold(clients.changer)};
    }
    for (const auto& [poster, id] : entered)
        mPosters.release(id);
}

void DeviceState::notePosters(const std::set<Posters::Id>& posters)
{
    if (!mNotesChanges || posters.empty())
        return;
    forEachValue(
        [&](const Value& value)
        {
            if (posters.count(value.history.poster) != 0 || posters.count(value.history.changer) != 0)
                mNoted.details[std::string(value.key)];
        });
}

SavedState DeviceState::takeChanges()
{
    for (const auto& [key, text] : mNoted.values)
        mNoted.details[key];
    for (auto detail = mNoted.details.begin(); detail != mNoted.details.end();)
    {
        const Value* value = find(detail->first);
        if (value == nullptr)
        {
            detail = mNoted.details.erase(detail);
            continue;
        }
        detail->second = savedDetail(*value);
        ++detail;
    }
    return std::exchange(mNoted, SavedState());
}

SavedState DeviceState::laterDetails() const
{
    SavedState later;
    for (const auto& [key, value] : mValues)
    {
        if (value.history.posts != 0 && value.history.posted >= mRestored)
            later.details.emplace_hint(later.details.end(), key, savedDetail(value));
    }
    return later;
}

SavedState::Detail DeviceState::savedDetail(const Value& value) const
{
    const BrokerProtocol::ValueDetails known = details(value);
    return {known.posted, known.changed, known.posts, known.changes,
            PosterText::write({known.poster, known.changer})};
}

SavedState DeviceState::everything() const
{
    SavedState all;
    for (const auto& [key, value] : mValues)
    {
        if (value.isForgotten)
            continue;
        all.values.emplace_hint(all.values.end(), key, value.text);
        if (value.history.posts != 0)
            all.details.emplace_hint(all.details.end(), key, savedDetail(value));
    }
    all.timers.insert(mTimers.begin(), mTimers.end());
    all.counters.insert(mCounters.begin(), mCounters.end());
    return all;
}

BrokerProtocol::ValueDetails DeviceState::details(const Value& value) const
{
    const auto wallNow = static_cast<int64_t>(microsecondsOf(CLOCK_REALTIME));
    const BootTime now = bootTime();
    const auto onTheWall = [&](BootTime time)
    { return time == unknownTime ? 0 : static_cast<uint64_t>(std::max<int64_t>(wallNow - (now - time), 0)); };
    const History& history = value.history;
    BrokerProtocol::ValueDetails details;
    details.value = value.text;
    details.posted = history.posts == 0 ? 0 : onTheWall(history.posted);
    details.changed = history.changes == 0 ? 0 : onTheWall(history.changed);
    details.posts = history.posts;
    details.changes = history.changes;
    details.poster = mPosters.at(history.poster);
    details.changer = mPosters.at(history.changer);
    return details;
}
