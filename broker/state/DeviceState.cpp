#include "broker/state/DeviceState.h"

#include <algorithm>
#include <utility>

#include "daemon/SystemClock.h"

using BrokerProtocol::Member;

namespace
{

// Counts up to the largest number.
void count(uint32_t& number)
{
    if (number != UINT32_MAX)
        ++number;
}

// Reuses the memory that is there. But a shrunk value gives its excess memory back, since the limits count
// its present size. It swaps, because a move into a string keeps that string's memory for a short text.
void assign(std::string& to, std::string_view text)
{
    if (text.size() < to.capacity() / 2)
        std::string(text).swap(to);
    else
        to = text;
}

// Empties a list for the next post. A large list gives its memory back.
template <typename Element>
void shrink(std::vector<Element>& elements)
{
    constexpr std::size_t kept = 256;
    elements.clear();
    if (elements.capacity() > kept)
        std::vector<Element>().swap(elements);
}

} // namespace

// CLOCK_BOOTTIME counts while the device sleeps, so that wall times computed from it are right.
DeviceState::BootTime DeviceState::bootTime()
{
    return static_cast<BootTime>(microsecondsOf(CLOCK_BOOTTIME));
}

// -------------------------------------------------------------------------------------------------- limits

bool DeviceState::hasGoodSize(std::string_view name)
{
    constexpr std::size_t shown = 40;
    if (name.size() <= mLimits.keyBytes)
        return true;
    mRefusals.report(Refusal::KeyBytes, "Name [%.*s...] of %zu bytes refused, the limit is %zu",
                     static_cast<int>(std::min(shown, name.size())), name.data(), name.size(),
                     mLimits.keyBytes);
    return false;
}

bool DeviceState::hasGoodSize(std::string_view name, std::string_view value)
{
    if (!hasGoodSize(name))
        return false;
    if (value.size() <= mLimits.valueBytes)
        return true;
    mRefusals.report(Refusal::ValueBytes, "Value of [%.*s] of %zu bytes refused, the limit is %zu",
                     excerptLength(name), name.data(), value.size(), mLimits.valueBytes);
    return false;
}

// @param others the number of existing names
bool DeviceState::mayAddName(std::string_view name, std::size_t others, std::size_t most, Refusal kind)
{
    if (!hasGoodSize(name))
        return false;
    if (others < most)
        return true;
    mRefusals.report(kind, "New name [%.*s] refused, %s is %zu", excerptLength(name), name.data(),
                     Refusals::name(kind), most);
    return false;
}

bool DeviceState::mayAddKey(std::string_view key)
{
    if (mForgotten == 0 || mValues.size() < mLimits.keys)
        return mayAddName(key, mValues.size(), mLimits.keys, Refusal::Keys);
    mRefusals.report(Refusal::Keys,
                     "New name [%.*s] refused, %s is %zu, and %zu forgotten names take room until all "
                     "subscribers know that they are gone",
                     excerptLength(key), key.data(), Refusals::name(Refusal::Keys), mLimits.keys, mForgotten);
    return false;
}

// For a forgotten value, the key already has room.
bool DeviceState::mayStore(Values::const_iterator stored, std::string_view key, std::string_view text)
{
    if (!hasGoodSize(key, text) || (stored == mValues.end() && !mayAddKey(key)))
        return false;
    const bool isNew = stored == mValues.end() || stored->second.isForgotten;
    const std::size_t before = isNew ? 0 : stored->second.text.size();
    const std::size_t after = text.size() + (isNew ? key.size() : 0);
    if (after <= before || mStoredBytes + (after - before) <= mLimits.storedBytes)
        return true;
    mRefusals.report(Refusal::StoredBytes, "Value of [%.*s] refused, the limit for all is %zu bytes",
                     excerptLength(key), key.data(), mLimits.storedBytes);
    return false;
}

// --------------------------------------------------------------------------------------------------- posts

const DeviceState::Members& DeviceState::post(const Members& values, Posters::Id by)
{
    return store(values, {by, bootTime()});
}

const DeviceState::Members& DeviceState::end(const Members& values, Posters::Id by)
{
    return store(values, {by, bootTime(), true});
}

const DeviceState::Members& DeviceState::store(const Members& values, const Post& post)
{
    shrink(mChanged);
    for (const Member& value : values)
    {
        if (store(value.name, value.value, post))
            mChanged.push_back(value);
    }
    return mChanged;
}

const DeviceState::Members& DeviceState::reset(const std::vector<std::string_view>& keys, Posters::Id by)
{
    shrink(mChanged);
    const Post post{by, bootTime()};
    for (const std::string_view key : keys)
    {
        if (store(key, {}, post))
            mChanged.push_back({key, {}}); // once: a second time it is already empty
    }
    std::sort(mChanged.begin(), mChanged.end(),
              [](const Member& one, const Member& other) { return one.name < other.name; });
    return mChanged;
}

const DeviceState::Members& DeviceState::events(const Members& events)
{
    shrink(mChanged);
    for (const Member& event : events)
    {
        if (hasGoodSize(event.name, event.value))
            mChanged.push_back(event);
    }
    return mChanged;
}

// Returns whether this changed something. A new key is a change even if its value is empty.
bool DeviceState::store(std::string_view key, std::string_view text, const Post& post)
{
    auto stored = mValues.find(key);
    const bool isThere = stored != mValues.end() && !stored->second.isForgotten;
    if (!mayTakeShare(stored == mValues.end() ? nullptr : &stored->second, key, text, post))
        return false;
    if (isThere && stored->second.text == text)
    {
        removeShare(stored->second);
        note(stored->second, post, false);
        addShare(stored->second);
        return false;
    }
    if (!mayStore(stored, key, text))
        return false;
    if (stored != mValues.end())
        removeShare(stored->second);
    mStoredBytes += text.size();
    if (stored == mValues.end())
    {
        mStoredBytes += key.size();
        stored = mValues.emplace(key, Value()).first;
        stored->second.key = stored->first;
    }
    else if (stored->second.isForgotten)
    {
        mStoredBytes += key.size();
        stored->second.isForgotten = false;
        --mForgotten;
    }
    else
        mStoredBytes -= stored->second.text.size();
    assign(stored->second.text, text);
    moveToNewest(stored->second);
    note(stored->second, post, true);
    addShare(stored->second);
    if (mNotesChanges)
    {
        mNoted.values[stored->first] = text;
        noteBack(mNoted.gone.values, key);
    }
    return true;
}

// -------------------------------------------------------------------------------------------------- shares

void DeviceState::setShares(Shares::Judge judge)
{
    mShares.begin(std::move(judge));
    for (const auto& [key, value] : mValues)
        addShare(value); // forgotten ones, too: they take room until they are dropped
}

Shares::User DeviceState::userOf(const Value* value) const
{
    return value == nullptr ? std::nullopt : mPosters.userOf(value->history.poster);
}

Shares::Share DeviceState::shareOf(const Value* value)
{
    return value == nullptr ? Shares::Share() : Shares::Share{1, value->key.size() + value->text.size()};
}

void DeviceState::addShare(const Value& value)
{
    if (mShares.isUsed())
        mShares.add(userOf(&value), shareOf(&value));
}

void DeviceState::removeShare(const Value& value)
{
    if (mShares.isUsed())
        mShares.remove(userOf(&value), shareOf(&value));
}

/// @param former the value that is replaced; null if the key is new
bool DeviceState::mayTakeShare(const Value* former, std::string_view key, std::string_view text,
                               const Post& post) const
{
    return !mShares.isUsed() || post.isEnd ||
           mShares.mayMove(userOf(former), shareOf(former), mPosters.userOf(post.by),
                           {1, key.size() + text.size()});
}

// ------------------------------------------------------------------------------------------------- history

void DeviceState::note(Value& value, const Post& post, bool isChange)
{
    History& history = value.history;
    if (mNotesChanges && !isChange && !mPosters.areOfOneService(history.poster, post.by))
        mNoted.details[std::string(value.key)]; // its details alone count as changed
    const auto replace = [this](Posters::Id& former, Posters::Id by)
    {
        if (former == by)
            return;
        mPosters.hold(by);
        mPosters.release(std::exchange(former, by));
    };
    if (!post.isEnd)
    {
        history.posted = post.at;
        count(history.posts);
        replace(history.poster, post.by);
    }
    if (!isChange)
        return;
    history.changed = post.at;
    count(history.changes);
    replace(history.changer, post.by);
}

void DeviceState::moveToNewest(Value& value)
{
    value.revision = ++mRevision;
    if (mNewest == &value)
        return;
    takeOut(value);
    value.older = mNewest;
    value.newer = nullptr;
    (mNewest == nullptr ? mOldest : mNewest->newer) = &value;
    mNewest = &value;
}

// Has no effect on a value that is not in the list.
void DeviceState::takeOut(Value& value)
{
    if (value.newer != nullptr)
        value.newer->older = value.older;
    else if (mNewest == &value)
        mNewest = value.older;
    if (value.older != nullptr)
        value.older->newer = value.newer;
    else if (mOldest == &value)
        mOldest = value.newer;
}

// ---------------------------------------------------------------------------------------------- forgetting

// Forgetting an empty value changes nothing more: its last change was its reset.
DeviceState::Forgotten DeviceState::forgetValues(const std::vector<std::string_view>& keys)
{
    Forgotten forgotten;
    for (const std::string_view key : keys)
    {
        const auto stored = mValues.find(key);
        if (stored == mValues.end() || stored->second.isForgotten)
            continue;
        forgotten.names.push_back(key);
        if (!stored->second.text.empty())
            forgotten.resets.push_back({key, {}});
        forget(stored->second);
    }
    std::sort(forgotten.resets.begin(), forgotten.resets.end(),
              [](const Member& one, const Member& other) { return one.name < other.name; });
    return forgotten;
}

// Keeps only its key, its place among the changes, and its share. Without the share, its user could fill the
// device with names that a slow subscriber keeps.
void DeviceState::forget(Value& value)
{
    mStoredBytes -= value.key.size() + value.text.size();
    if (!value.text.empty())
        moveToNewest(value);
    removeShare(value);
    mPosters.release(value.history.changer);
    Value rest;
    rest.key = value.key;
    rest.history.poster = value.history.poster;
    rest.revision = value.revision;
    rest.older = value.older;
    rest.newer = value.newer;
    rest.isForgotten = true;
    value = std::move(rest);
    addShare(value);
    ++mForgotten;
    if (mNotesChanges)
        noteGone(mNoted.values, mNoted.gone.values, value.key);
}

std::size_t DeviceState::dropForgotten(uint64_t revision)
{
    const std::size_t before = mForgotten;
    for (Value* value = mOldest; mForgotten != 0 && value != nullptr && value->revision <= revision;)
    {
        Value& each = *std::exchange(value, value->newer);
        if (!each.isForgotten)
            continue;
        takeOut(each);
        removeShare(each);
        mPosters.release(each.history.poster);
        mValues.erase(mValues.find(each.key));
        --mForgotten;
    }
    return before - mForgotten;
}

// ------------------------------------------------------------------------------------------------ requests

const DeviceState::Value* DeviceState::find(std::string_view key) const
{
    const auto stored = mValues.find(key);
    return stored == mValues.end() || stored->second.isForgotten ? nullptr : &stored->second;
}

const DeviceState::Value* DeviceState::behind(const std::optional<std::string>& key) const
{
    auto next = key ? mValues.upper_bound(*key) : mValues.begin();
    while (next != mValues.end() && next->second.isForgotten)
        ++next;
    return next == mValues.end() ? nullptr : &next->second;
}

std::string_view DeviceState::valueOf(std::string_view key) const
{
    const Value* value = find(key);
    return value == nullptr ? std::string_view() : value->text;
}

// Searches from the newest back: a subscriber usually lacks only the last few.
const DeviceState::Value* DeviceState::changedSince(uint64_t revision) const
{
    const Value* first = nullptr;
    for (const Value* value = mNewest; value != nullptr && value->revision > revision; value = value->older)
        first = value;
    return first;
}
