// The timers and counters of the device.

#include <algorithm>

#include "broker/state/DeviceState.h"
#include "daemon/SystemClock.h"

namespace
{

// ---- The rules of a stopwatch. Starting a running one and stopping a stopped one do nothing. Resetting a
// running one keeps the current span.

uint64_t spanOf(const SavedState::Timer& timer, uint64_t now)
{
    return timer.spanStart == 0 || timer.spanStart > now ? 0 : now - timer.spanStart;
}

void begin(SavedState::Timer& timer, uint64_t now)
{
    timer.spanStart = now;
    timer.lastStarted = microsecondsOf(CLOCK_REALTIME);
}

// Erases the names that exist, and returns them.
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
const std::string* nameBehind(const Map& map, const std::optional<std::string>& name)
{
    const auto next = name ? map.upper_bound(*name) : map.begin();
    return next == map.end() ? nullptr : &next->first;
}

template <typename Map>
typename Map::mapped_type& entry(Map& map, std::string_view name)
{
    const auto found = map.find(name);
    return found == map.end() ? map[std::string(name)] : found->second;
}

} // namespace

// -------------------------------------------------------------------------------------------------- posts

// Returns false if the name exceeds a limit.
template <typename Operate>
bool DeviceState::applyToTimer(std::string_view name, Operate operate)
{
    if (!mayName(mTimers, name, mLimits.timers, Refusal::Timers))
        return false;
    Timer& timer = entry(mTimers, name);
    operate(timer, microsecondsOf(CLOCK_MONOTONIC));
    if (!mNotesChanges)
        return true;
    mNoted.timers[std::string(name)] = timer;
    noteBack(mNoted.gone.timers, name);
    return true;
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

bool DeviceState::setTimer(std::string_view name, const BrokerProtocol::TimerReading& reading)
{
    return applyToTimer(name,
                        [&](Timer& timer, uint64_t now)
                        {
                            timer.accumulated = reading.elapsed;
                            timer.spanStart = reading.isRunning ? now : 0;
                            timer.lastStarted = reading.lastStarted;
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

BrokerProtocol::TimerReading DeviceState::timer(std::string_view name) const
{
    const auto found = mTimers.find(name);
    return {elapsed(name), lastStarted(name), found != mTimers.end() && found->second.spanStart != 0};
}

const std::string* DeviceState::timerBehind(const std::optional<std::string>& name) const
{
    return nameBehind(mTimers, name);
}

const std::string* DeviceState::counterBehind(const std::optional<std::string>& name) const
{
    return nameBehind(mCounters, name);
}

uint32_t DeviceState::counter(std::string_view name) const
{
    const auto stored = mCounters.find(name);
    return stored == mCounters.end() ? 0 : stored->second;
}
