#include "broker/DeviceState.h"

#include <algorithm>
#include <ctime>

namespace Key = BrokerProtocol::Key;

namespace
{

// Not by the clocks of std::chrono: on 32-bit processors the C++ library's wall clock ends in 2038.
uint64_t microsecondsOf(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec / 1000);
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

void operate(SavedState::Timer& timer, std::string_view operation, uint64_t now)
{
    if (operation == Key::stopTimer)
    {
        timer.accumulated += spanOf(timer, now);
        timer.spanStart = 0;
        return;
    }
    if (operation != Key::startTimer)
        timer.accumulated = 0;
    const bool isRunning = timer.spanStart != 0;
    if (operation == Key::restartTimer || (operation == Key::startTimer && !isRunning))
        begin(timer, now);
}

// Within the memory that is there, but what has shrunk does not keep that of its largest value: the limits
// count what is held now. Exchanged, as a move into a string keeps that one's memory where the text is short.
void assign(std::string& to, const std::string& text)
{
    if (text.size() < to.capacity() / 2)
        std::string(text).swap(to);
    else
        to = text;
}

} // namespace

void DeviceState::restore(SavedState state)
{
    for (const auto& [key, text] : state.values)
    {
        mStoredBytes += key.size() + text.size();
        mValues[key] = {text, ++mRevision};
    }
    mTimers = std::move(state.timers);
    mCounters = std::move(state.counters);
    mNotesChanges = true;
}

SavedState DeviceState::takeChanges()
{
    return std::exchange(mChanges, SavedState());
}

std::optional<std::string> DeviceState::apply(BrokerProtocol::Command post)
{
    if (post.key == Key::postStatus)
        return storeAll(std::move(post.map));
    if (post.key == Key::resetStatus)
    {
        StatusMap empty;
        for (const std::string& key : post.list)
            empty[key];
        return storeAll(std::move(empty));
    }
    if (post.key == Key::postEvent)
        return eventUpdate(std::move(post.map));
    if (post.key == Key::setCounterValue)
        setCounter(post.text, post.number);
    else
        applyToTimer(post);
    return std::nullopt;
}

std::optional<std::string> DeviceState::answer(const BrokerProtocol::Command& request)
{
    if (request.key == Key::getClientInfo)
        return BrokerProtocol::writeMapReply(allValues());
    if (request.key == Key::getClientInfoValue)
        return BrokerProtocol::writeStatusValueReply(valueOf(request.text));
    if (request.key == Key::getClientInfoValues)
        return BrokerProtocol::writeMapReply(valuesOf(request.list));
    if (request.key == Key::getTimerElapsed)
        return BrokerProtocol::writeTimerReply(elapsed(request.text));
    if (request.key == Key::getTimerLastStarted)
        return BrokerProtocol::writeTimerReply(lastStarted(request.text));
    if (request.key == Key::incrementCounter)
        return incrementCounter(request.text);
    return BrokerProtocol::writeCounterReply(counter(request.text));
}

StatusMap DeviceState::changedSince(uint64_t revision) const
{
    StatusMap changed;
    for (const auto& [key, value] : mValues)
    {
        if (value.revision > revision)
            changed.emplace_hint(changed.end(), key, value.text);
    }
    return changed;
}

// ------------------------------------------------------------------------------------------------- limits

bool DeviceState::hasGoodSize(const std::string& name)
{
    if (name.size() <= mLimits.keyBytes)
        return true;
    mRefusals.report(Refusal::KeyBytes, "Name [" + name.substr(0, 40) + "...] of " +
                                            std::to_string(name.size()) + " bytes refused, the limit is " +
                                            std::to_string(mLimits.keyBytes));
    return false;
}

bool DeviceState::hasGoodSize(const std::string& name, const std::string& value)
{
    if (!hasGoodSize(name))
        return false;
    if (value.size() <= mLimits.valueBytes)
        return true;
    mRefusals.report(Refusal::ValueBytes, "Value of [" + name + "] of " + std::to_string(value.size()) +
                                              " bytes refused, the limit is " +
                                              std::to_string(mLimits.valueBytes));
    return false;
}

// Whether the map has the name already, or room for it.
template <typename Map>
bool DeviceState::mayName(const Map& map, const std::string& name, std::size_t most, Refusal kind)
{
    if (map.count(name) != 0)
        return true;
    if (!hasGoodSize(name))
        return false;
    if (map.size() < most)
        return true;
    mRefusals.report(kind, "New name [" + name + "] refused, " + Refusals::name(kind) + " is " +
                               std::to_string(most));
    return false;
}

bool DeviceState::mayStore(Values::const_iterator stored, const std::string& key, const std::string& text)
{
    const bool isNew = stored == mValues.end();
    if (!hasGoodSize(key, text) || (isNew && !mayName(mValues, key, mLimits.keys, Refusal::Keys)))
        return false;
    const std::size_t before = isNew ? 0 : stored->second.text.size();
    const std::size_t after = text.size() + (isNew ? key.size() : 0);
    if (after <= before || mStoredBytes + (after - before) <= mLimits.storedBytes)
        return true;
    mRefusals.report(Refusal::StoredBytes, "Value of [" + key + "] refused, the limit for all is " +
                                               std::to_string(mLimits.storedBytes) + " bytes");
    return false;
}

// ------------------------------------------------------------------------------------------------- changes

// True if that changed something. A key that is unknown so far changes even if the value is empty.
bool DeviceState::store(const std::string& key, const std::string& text)
{
    const auto stored = mValues.find(key);
    if (stored != mValues.end() && stored->second.text == text)
        return false;
    if (!mayStore(stored, key, text))
        return false;
    mStoredBytes += text.size();
    if (stored == mValues.end())
        mStoredBytes += key.size();
    else
        mStoredBytes -= stored->second.text.size();
    Value& value = stored == mValues.end() ? mValues[key] : stored->second;
    assign(value.text, text);
    value.revision = ++mRevision;
    if (mNotesChanges)
        mChanges.values[key] = text;
    return true;
}

std::optional<std::string> DeviceState::storeAll(StatusMap values)
{
    for (auto value = values.begin(); value != values.end();)
        value = store(value->first, value->second) ? std::next(value) : values.erase(value);
    return values.empty() ? std::nullopt : std::optional(BrokerProtocol::writeStatusUpdate(values));
}

std::optional<std::string> DeviceState::eventUpdate(StatusMap events)
{
    for (auto event = events.begin(); event != events.end();)
        event = hasGoodSize(event->first, event->second) ? std::next(event) : events.erase(event);
    return events.empty() ? std::nullopt : std::optional(BrokerProtocol::writeEventUpdate(events));
}

void DeviceState::applyToTimer(const BrokerProtocol::Command& post)
{
    if (!mayName(mTimers, post.text, mLimits.timers, Refusal::Timers))
        return;
    Timer& timer = mTimers[post.text];
    operate(timer, post.key, microsecondsOf(CLOCK_MONOTONIC));
    if (mNotesChanges)
        mChanges.timers[post.text] = timer;
}

void DeviceState::setCounter(const std::string& name, uint32_t value)
{
    if (!mayName(mCounters, name, mLimits.counters, Refusal::Counters))
        return;
    mCounters[name] = value;
    if (mNotesChanges)
        mChanges.counters[name] = value;
}

std::optional<std::string> DeviceState::incrementCounter(const std::string& name)
{
    if (!mayName(mCounters, name, mLimits.counters, Refusal::Counters))
        return std::nullopt;
    setCounter(name, counter(name) + 1); // wraps at 2^32
    return BrokerProtocol::writeCounterReply(counter(name));
}

// ------------------------------------------------------------------------------------------------- queries

bool DeviceState::hasRunningTimers() const
{
    return std::any_of(mTimers.begin(), mTimers.end(),
                       [](const auto& entry) { return entry.second.spanStart != 0; });
}

StatusMap DeviceState::allValues() const
{
    StatusMap values;
    for (const auto& [key, value] : mValues)
        values.emplace_hint(values.end(), key, value.text);
    return values;
}

StatusMap DeviceState::valuesOf(const std::vector<std::string>& keys) const
{
    StatusMap values;
    for (const std::string& key : keys)
    {
        const auto stored = mValues.find(key);
        if (stored != mValues.end())
            values.emplace(key, stored->second.text);
    }
    return values;
}

std::string DeviceState::valueOf(const std::string& key) const
{
    const auto stored = mValues.find(key);
    return stored == mValues.end() ? std::string() : stored->second.text;
}

uint64_t DeviceState::elapsed(const std::string& name) const
{
    const auto timer = mTimers.find(name);
    if (timer == mTimers.end())
        return 0;
    return timer->second.accumulated + spanOf(timer->second, microsecondsOf(CLOCK_MONOTONIC));
}

uint64_t DeviceState::lastStarted(const std::string& name) const
{
    const auto timer = mTimers.find(name);
    return timer == mTimers.end() ? 0 : timer->second.lastStarted;
}

uint32_t DeviceState::counter(const std::string& name) const
{
    const auto stored = mCounters.find(name);
    return stored == mCounters.end() ? 0 : stored->second;
}
