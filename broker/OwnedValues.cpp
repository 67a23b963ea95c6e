#include "broker/OwnedValues.h"

#include <algorithm>
#include <utility>

namespace
{

// So many owners that have gone have their turn, and for so long, before others are served.
constexpr std::size_t fewAtATime = 32;
constexpr std::chrono::milliseconds turn{3};

// While it is found out who has come back.
constexpr std::chrono::milliseconds searchPause{5};

} // namespace

void OwnedValues::setPolicy(const Policy& policy, TimePoint now)
{
    mPolicy = &policy;
    for (auto key = mKeys.begin(); key != mKeys.end();)
        key = policy.tieFor(key->first) == nullptr ? disown(key) : std::next(key);
    if (!policy.hasTies())
        return;
    mState.forEachValue(
        [&](const DeviceState::Value& value)
        {
            const Posters::Id poster = value.history.poster;
            if (poster != Posters::nobody && !value.text.empty() && policy.tieFor(value.key) != nullptr &&
                mKeys.find(value.key) == mKeys.end())
                own(value.key, poster);
        });
    for (auto& [client, owner] : mOwners)
    {
        if (!owner.goneAt && !mWorld.isHere(client))
        {
            owner.goneAt = now;
            owner.since = TimePoint::min();
        }
        if (owner.goneAt)
            plan(owner, now);
    }
}

// ------------------------------------------------------------------------------------------------ ownership

void OwnedValues::posted(Posters::Id by, const DeviceState::Members& values)
{
    for (const BrokerProtocol::Member& posted : values)
        follow(posted.name, by);
}

void OwnedValues::reset(Posters::Id by, const std::vector<std::string_view>& keys)
{
    for (const std::string_view key : keys)
        follow(key, by);
}

// Unless the client's post was refused.
void OwnedValues::follow(std::string_view key, Posters::Id by)
{
    if (mPolicy->tieFor(key) == nullptr)
        return;
    const DeviceState::Value* value = mState.find(key);
    if (value == nullptr || value->history.poster != by)
        return;
    if (!value->text.empty())
        own(key, by);
    else if (const auto owned = mKeys.find(key); owned != mKeys.end())
        disown(owned);
}

void OwnedValues::forget(const std::vector<std::string_view>& keys)
{
    for (const std::string_view key : keys)
    {
        if (const auto owned = mKeys.find(key); owned != mKeys.end())
            disown(owned);
    }
}

void OwnedValues::own(std::string_view key, Posters::Id client)
{
    auto place = mKeys.find(key);
    if (place == mKeys.end())
        place = mKeys.emplace(key, Posters::nobody).first;
    if (place->second == client)
        return;
    ownerFor(client).keys.insert(place->first);
    const Posters::Id former = std::exchange(place->second, client);
    leave(former, place->first);
}

OwnedValues::Keys::iterator OwnedValues::disown(Keys::iterator key)
{
    leave(key->second, key->first);
    return mKeys.erase(key);
}

OwnedValues::Owner& OwnedValues::ownerFor(Posters::Id client)
{
    const auto [place, isNew] = mOwners.try_emplace(client);
    if (isNew)
        mState.posters().hold(client);
    return place->second;
}

void OwnedValues::leave(Posters::Id client, std::string_view key)
{
    const auto owner = mOwners.find(client);
    if (owner == mOwners.end())
        return;
    owner->second.keys.erase(key);
    if (!owner->second.keys.empty())
        return;
    mOwners.erase(owner);
    mState.posters().release(client);
}

// --------------------------------------------------------------------------------------------------- ending

void OwnedValues::gone(Posters::Id client, bool canComeBack, TimePoint since, TimePoint now)
{
    const auto owner = mOwners.find(client);
    if (owner == mOwners.end())
        return;
    owner->second.goneAt = now;
    owner->second.since = since;
    owner->second.canComeBack = canComeBack;
    plan(owner->second, now);
}

// For an owner that has gone.
void OwnedValues::plan(Owner& owner, TimePoint now)
{
    owner.end = TimePoint::max();
    for (const std::string_view key : owner.keys)
        owner.end = std::min(owner.end, *owner.goneAt + mPolicy->tieFor(key)->grace);
    wait(owner, now);
}

// Until the end, its successor is looked for a few times, since it takes a while to know a process.
void OwnedValues::wait(Owner& owner, TimePoint now)
{
    constexpr int looks = 8;
    const auto pause = std::max<TimePoint::duration>((owner.end - *owner.goneAt) / looks, searchPause);
    owner.next = now < owner.end ? std::min(owner.end, now + pause) : now + searchPause;
    mDue = std::min(mDue, owner.next);
}

void OwnedValues::doWhatIsDue(TimePoint now)
{
    std::vector<std::pair<TimePoint, Posters::Id>> due; // those that have waited longest first
    mDue = TimePoint::max();
    for (const auto& [client, owner] : mOwners)
    {
        if (!owner.goneAt)
            continue;
        if (owner.next <= now)
            due.emplace_back(owner.next, client);
        else
            mDue = std::min(mDue, owner.next);
    }
    std::sort(due.begin(), due.end());
    const TimePoint end = Clock::now() + turn;
    std::size_t count = 0;
    for (; count < std::min(due.size(), fewAtATime) && Clock::now() < end; ++count)
    {
        if (const auto owner = mOwners.find(due[count].second); owner != mOwners.end())
            settle(owner->first, owner->second, now);
    }
    if (count < due.size())
        mDue = std::min(mDue, due[count].first);
}

void OwnedValues::settle(Posters::Id client, Owner& owner, TimePoint now)
{
    const std::optional<Posters::Id> successor =
        owner.canComeBack ? mWorld.successor(client, owner.since) : Posters::nobody;
    const TimePoint end = successor ? owner.end : owner.end + longestSearch;
    if (successor.value_or(Posters::nobody) != Posters::nobody)
        handOver(owner, *successor);
    else if (now < end)
        wait(owner, now);
    else
        mark(client, owner, now);
}

// The keys are copied, as the owner goes with its last one.
void OwnedValues::handOver(const Owner& owner, Posters::Id successor)
{
    for (const std::string_view key : std::set<std::string_view>(owner.keys))
        own(key, successor);
}

// The values whose time has come.
void OwnedValues::mark(Posters::Id client, const Owner& owner, TimePoint now)
{
    std::map<const PolicyTie*, std::vector<std::string_view>> over;
    for (const std::string_view key : owner.keys)
    {
        const PolicyTie* rule = mPolicy->tieFor(key);
        if (*owner.goneAt + rule->grace <= now)
            over[rule].push_back(key);
    }
    for (const auto& [rule, keys] : over)
    {
        mWorld.mark(client, *rule, keys);
        for (const std::string_view key : keys)
            disown(mKeys.find(key));
    }
    if (const auto left = mOwners.find(client); left != mOwners.end())
        plan(left->second, now);
}
