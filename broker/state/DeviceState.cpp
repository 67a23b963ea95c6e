#include "broker/state/DeviceState.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <tuple>
#include <utility>

#include "broker/state/PosterText.h"

using BrokerProtocol::Member;

namespace
{

// Not by the clocks of std::chrono: on 32-bit processors the C++ library's wall clock ends in 2038.
uint64_t microsecondsOf(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec / 1000);
}

DeviceState::BootTime bootTime()
{
    return static_cast<DeviceState::BootTime>(microsecondsOf(CLOCK_BOOTTIME));
}

// As far as it goes.
void count(uint32_t& number)
{
    if (number != UINT32_MAX)
        ++number;
}

// ---- The stopwatch's rules: starting a running one and stopping a stopped one do nothing, resetting a
// running one leaves the span under way.

uint64_t spanOf(const SavedState::Timer& timer, uint64_t now)
{
    return timer.spanStart == 0 || timer.spanStart > now ? 0 : now - timer.spanStart;
}

void begin(SavedState::Timer& timer, uint64_t now)
{
    timer.spanStart = now;
    timer.lastStarted = microsecondsOf(CLOCK_REALTIME);
}

// Within the memory that is there, but what has shrunk does not keep that of its largest value: the limits
// count what is held now. Exchanged, as a move into a string keeps that one's memory where the text is short.
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

// Notes that a name has been forgotten, or is there again.
template <typename Map>
void noteGone(Map& changed, SavedState::Gone::Names& gone, std::string_view name)
{
    const std::string text(name);
    changed.erase(text);
    gone.insert(text);
}

void noteBack(SavedState::Gone::Names& gone, std::string_view name)
{
    const auto found = gone.find(name);
    if (found != gone.end())
        gone.erase(found);
}

// Erases those names that are there, and returns them.
template <typename Map, typename Note>
std::vector<std::string_view> eraseAll(Map& map, const std::vector<std::string_view>& names, Note note)
{
    std::vector<std::string_view> erased;
    for (const std::string_view name : names)
    {
        const auto found = map.find(name);
        if (found == map.end())
            continue;
        map.erase(found);
        note(name);
        erased.push_back(name);
    }
    return erased;
}

template <typename Map>
typename Map::mapped_type& entry(Map& map, std::string_view name)
{
    const auto found = map.find(name);
    return found == map.end() ? map[std::string(name)] : found->second;
}

} // namespace

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

// Equal clients become one, and are there as long as a value holds them.
void DeviceState::restoreHistories(const SavedState& state)
{
    const auto wallNow = static_cast<BootTime>(microsecondsOf(CLOCK_REALTIME));
    const BootTime now = bootTime();
    const auto sinceBoot = [&](uint64_t time)
    {
        const auto onTheWall = static_cast<BootTime>(time);
        const bool isKnown = time != 0 && onTheWall <= wallNow; // else the clock is not set, or was not then
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

// Whether the map has the name already, or room for it.
template <typename Map>
bool DeviceState::mayName(const Map& map, std::string_view name, std::size_t most, Refusal kind)
{
    if (map.find(name) != map.end())
        return true;
    if (!hasGoodSize(name))
        return false;
    if (map.size() < most)
        return true;
    mRefusals.report(kind, "New name [%.*s] refused, %s is %zu", excerptLength(name), name.data(),
                     Refusals::name(kind), most);
    return false;
}

bool DeviceState::mayAddKey(std::string_view key)
{
    if (mForgotten == 0 || mValues.size() < mLimits.keys)
        return mayName(mValues, key, mLimits.keys, Refusal::Keys);
    mRefusals.report(Refusal::Keys,
                     "New name [%.*s] refused, %s is %zu, and %zu forgotten names take room until all "
                     "subscribers know that they are gone",
                     excerptLength(key), key.data(), Refusals::name(Refusal::Keys), mLimits.keys, mForgotten);
    return false;
}

// A forgotten value has room for its key.
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
            mChanged.push_back({key, {}}); // once: the next time it is empty already
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

// True if that changed something. A key that is unknown so far changes even if the value is empty.
bool DeviceState::store(std::string_view key, std::string_view text, const Post& post)
{
    auto stored = mValues.find(key);
    const bool isThere = stored != mValues.end() && !stored->second.isForgotten;
    if (!mayTakeShare(isThere ? &stored->second : nullptr, key, text, post))
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
    if (isThere)
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
    forEachValue([this](const Value& value) { addShare(value); });
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

/// @param former that is replaced; null if the key is new
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
        mNoted.details[std::string(value.key)]; // a change of its own
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

// Without effect on one that is not there yet.
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

template <typename Operate>
void DeviceState::applyToTimer(std::string_view name, Operate operate)
{
    if (!mayName(mTimers, name, mLimits.timers, Refusal::Timers))
        return;
    Timer& timer = entry(mTimers, name);
    operate(timer, microsecondsOf(CLOCK_MONOTONIC));
    if (!mNotesChanges)
        return;
    mNoted.timers[std::string(name)] = timer;
    noteBack(mNoted.gone.timers, name);
}

void DeviceState::startTimer(std::string_view name)
{
    applyToTimer(name,
                 [](Timer& timer, uint64_t now)
                 {
                     if (timer.spanStart == 0)
                         begin(timer, now);
                 });
}

void DeviceState::stopTimer(std::string_view name)
{
    applyToTimer(name,
                 [](Timer& timer, uint64_t now)
                 {
                     timer.accumulated += spanOf(timer, now);
                     timer.spanStart = 0;
                 });
}

void DeviceState::resetTimer(std::string_view name)
{
    applyToTimer(name, [](Timer& timer, uint64_t) { timer.accumulated = 0; });
}

void DeviceState::restartTimer(std::string_view name)
{
    applyToTimer(name,
                 [](Timer& timer, uint64_t now)
                 {
                     timer.accumulated = 0;
                     begin(timer, now);
                 });
}

void DeviceState::setCounter(std::string_view name, uint32_t value)
{
    if (!mayName(mCounters, name, mLimits.counters, Refusal::Counters))
        return;
    entry(mCounters, name) = value;
    if (!mNotesChanges)
        return;
    mNoted.counters[std::string(name)] = value;
    noteBack(mNoted.gone.counters, name);
}

// ---------------------------------------------------------------------------------------------- forgetting

// A value that is empty already changes no more: its last change was its reset.
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

// Nothing of it stays but its key and its place among the changes.
void DeviceState::forget(Value& value)
{
    mStoredBytes -= value.key.size() + value.text.size();
    if (!value.text.empty())
        moveToNewest(value);
    removeShare(value);
    mPosters.release(value.history.poster);
    mPosters.release(value.history.changer);
    Value rest;
    rest.key = value.key;
    rest.revision = value.revision;
    rest.older = value.older;
    rest.newer = value.newer;
    rest.isForgotten = true;
    value = std::move(rest);
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
        mValues.erase(mValues.find(each.key));
        --mForgotten;
    }
    return before - mForgotten;
}

std::vector<std::string_view> DeviceState::forgetTimers(const std::vector<std::string_view>& names)
{
    return eraseAll(mTimers, names,
                    [this](std::string_view name)
                    {
                        if (mNotesChanges)
                            noteGone(mNoted.timers, mNoted.gone.timers, name);
                    });
}

std::vector<std::string_view> DeviceState::forgetCounters(const std::vector<std::string_view>& names)
{
    return eraseAll(mCounters, names,
                    [this](std::string_view name)
                    {
                        if (mNotesChanges)
                            noteGone(mNoted.counters, mNoted.gone.counters, name);
                    });
}

// ------------------------------------------------------------------------------------------------ requests

std::optional<uint32_t> DeviceState::incrementCounter(std::string_view name)
{
    if (!mayName(mCounters, name, mLimits.counters, Refusal::Counters))
        return std::nullopt;
    setCounter(name, counter(name) + 1); // wraps at 2^32
    return counter(name);
}

bool DeviceState::hasRunningTimers() const
{
    return std::any_of(mTimers.begin(), mTimers.end(),
                       [](const auto& entry) { return entry.second.spanStart != 0; });
}

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

std::string_view DeviceState::valueOf(std::string_view key) const
{
    const Value* value = find(key);
    return value == nullptr ? std::string_view() : value->text;
}

// From the newest back: whoever asks mostly lacks the last few.
const DeviceState::Value* DeviceState::changedSince(uint64_t revision) const
{
    const Value* first = nullptr;
    for (const Value* value = mNewest; value != nullptr && value->revision > revision; value = value->older)
        first = value;
    return first;
}

uint64_t DeviceState::elapsed(std::string_view timer) const
{
    const auto found = mTimers.find(timer);
    if (found == mTimers.end())
        return 0;
    return found->second.accumulated + spanOf(found->second, microsecondsOf(CLOCK_MONOTONIC));
}

uint64_t DeviceState::lastStarted(std::string_view timer) const
{
    const auto found = mTimers.find(timer);
    return found == mTimers.end() ? 0 : found->second.lastStarted;
}

uint32_t DeviceState::counter(std::string_view name) const
{
    const auto stored = mCounters.find(name);
    return stored == mCounters.end() ? 0 : stored->second;
}
