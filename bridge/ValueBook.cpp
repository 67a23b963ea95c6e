#include "bridge/ValueBook.h"

#include <algorithm>

void ValueBook::change(const std::string& key, const std::string& value, TimePoint now)
{
    const auto [entry, isNew] = mEntries.try_emplace(key);
    entry->second.isGone = false;
    if (entry->second.value == value)
        return;
    entry->second.value = value;
    enqueue(*entry, now);
}

void ValueBook::replace(const Values& values, TimePoint now)
{
    for (auto& entry : mEntries)
    {
        if (values.count(entry.first) != 0)
            continue;
        entry.second.isGone = true;
        if (!entry.second.value.empty())
            enqueue(entry, now);
        entry.second.value.clear();
    }
    for (const auto& [key, value] : values)
        change(key, value, now);
}

// A value that waits already keeps its time, so a key that changes all the time is still sent.
void ValueBook::enqueue(Entries::value_type& entry, TimePoint now)
{
    if (entry.second.due != TimePoint::max())
        return;
    const bool wasSent = entry.second.sent != TimePoint();
    entry.second.due = wasSent ? std::max(now, entry.second.sent + mIntervalOf(entry.first)) : now;
    mQueue.emplace(entry.second.due, &entry.first);
}

ValueBook::Due ValueBook::takeDue(TimePoint now)
{
    if (nextDue() > now)
        return {};
    const auto entry = mEntries.find(*mQueue.begin()->second);
    mQueue.erase(mQueue.begin());
    entry->second.due = TimePoint::max();
    entry->second.sent = now;
    if (!entry->second.isGone)
        return {&entry->first, &entry->second.value};
    mTakenKey = entry->first;
    mTaken = std::move(entry->second);
    mEntries.erase(entry);
    return {&mTakenKey, &mTaken.value};
}

void ValueBook::clearQueue()
{
    mQueue.clear();
    for (auto entry = mEntries.begin(); entry != mEntries.end();)
    {
        entry->second.due = TimePoint::max();
        entry = entry->second.isGone ? mEntries.erase(entry) : std::next(entry);
    }
}

ValueBook::Due ValueBook::takeBehind(const std::string& key, bool isFirst, TimePoint now)
{
    auto entry = isFirst ? mEntries.begin() : mEntries.upper_bound(key);
    while (entry != mEntries.end() && entry->second.value.empty())
        ++entry;
    if (entry == mEntries.end())
        return {};
    entry->second.sent = now;
    if (entry->second.due != TimePoint::max())
        mQueue.erase({entry->second.due, &entry->first});
    entry->second.due = TimePoint::max();
    return {&entry->first, &entry->second.value};
}

ValueBook::Values ValueBook::values() const
{
    Values values;
    for (const auto& [key, entry] : mEntries)
    {
        if (!entry.value.empty())
            values.emplace_hint(values.end(), key, entry.value);
    }
    return values;
}

std::string ValueBook::valueOf(const std::string& key) const
{
    const auto entry = mEntries.find(key);
    return entry == mEntries.end() ? std::string() : entry->second.value;
}
