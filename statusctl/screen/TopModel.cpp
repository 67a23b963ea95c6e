#include "statusctl/screen/TopModel.h"

#include <algorithm>
#include <cctype>

namespace
{

std::string inSmallLetters(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

bool contains(const std::string& text, const std::string& smallLetters)
{
    return inSmallLetters(text).find(smallLetters) != std::string::npos;
}

} // namespace

void TopModel::Rate::count(int64_t second)
{
    Slot& slot = mSlots[static_cast<std::size_t>(second) % seconds];
    if (slot.second != second)
        slot = {second, 0};
    ++slot.changes;
}

double TopModel::Rate::perSecond(int64_t second) const
{
    uint64_t sum = 0;
    for (const Slot& slot : mSlots)
    {
        if (slot.second > second - static_cast<int64_t>(seconds) && slot.second <= second)
            sum += slot.changes;
    }
    return static_cast<double>(sum) / static_cast<double>(seconds);
}

int64_t TopModel::secondOf(Clock::time_point time)
{
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

void TopModel::take(const Change& change, Clock::time_point now)
{
    constexpr std::size_t eventsKept = 1000;
    if (isMark(change.kind))
        return;
    if (change.kind == Change::Kind::Gone)
    {
        mEntries.erase(change.name);
        return;
    }
    if (change.kind == Change::Kind::Event)
    {
        mEvents.push_front(change);
        if (mEvents.size() > eventsKept)
            mEvents.pop_back();
        return;
    }
    Entry& entry = mEntries[change.name];
    entry.value = change.value;
    if (!isUpdate(change.kind))
        return;
    entry.posted = entry.changed = now;
    entry.rate.count(secondOf(now));
}

void TopModel::takeDetails(const std::string& key, std::optional<std::chrono::microseconds> age,
                           const std::string& poster, Clock::time_point now)
{
    const auto found = mEntries.find(key);
    if (found == mEntries.end())
        return;
    found->second.poster = poster;
    if (age)
        found->second.posted = now - *age;
}

std::vector<TopModel::Row> TopModel::rows(const std::string& filter, Clock::time_point now) const
{
    constexpr std::chrono::seconds fresh{2};
    const std::string wanted = inSmallLetters(filter);
    std::vector<Row> rows;
    for (const auto& [key, entry] : mEntries)
    {
        if (!contains(key, wanted) && !contains(entry.value, wanted))
            continue;
        rows.push_back({key, entry.value,
                        std::chrono::duration_cast<std::chrono::seconds>(now - entry.posted.value_or(now)),
                        entry.posted.has_value(), entry.changed && now - *entry.changed < fresh,
                        entry.rate.perSecond(secondOf(now)), entry.poster});
    }
    return rows;
}
