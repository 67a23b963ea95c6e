#include "broker/DeviceState.h"

#include <chrono>

namespace Key = BrokerProtocol::Key;

namespace
{

uint64_t microsecondsSinceEpoch()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

} // namespace

std::optional<std::string> DeviceState::apply(const BrokerProtocol::Command& post)
{
    if (post.key == Key::postStatus)
        return storeAll(post.map);
    if (post.key == Key::resetStatus)
    {
        StatusMap empty;
        for (const std::string& key : post.list)
            empty[key];
        return storeAll(empty);
    }
    if (post.key == Key::postEvent)
        return post.map.empty() ? std::nullopt : std::optional(BrokerProtocol::writeEventUpdate(post.map));
    if (post.key == Key::setCounterValue)
        mCounters[post.text] = post.number;
    else
        applyToTimer(post);
    return std::nullopt;
}

std::string DeviceState::answer(const BrokerProtocol::Command& request)
{
    if (request.key == Key::getClientInfo)
        return BrokerProtocol::writeMapReply(allValues());
    if (request.key == Key::getClientInfoValue)
        return BrokerProtocol::writeStatusValueReply(valueOf(request.text));
    if (request.key == Key::getClientInfoValues)
        return BrokerProtocol::writeMapReply(valuesOf(request.list));
    if (request.key == Key::getTimerElapsed)
        return BrokerProtocol::writeNumberReply(elapsed(request.text));
    if (request.key == Key::getTimerLastStarted)
        return BrokerProtocol::writeNumberReply(lastStarted(request.text));
    if (request.key == Key::incrementCounter)
        return BrokerProtocol::writeNumberReply(++mCounters[request.text]); // wraps at 2^32
    return BrokerProtocol::writeNumberReply(counter(request.text));
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

// True if that changed something. A key that is unknown so far changes even if the value is empty.
bool DeviceState::store(const std::string& key, const std::string& text)
{
    const auto stored = mValues.find(key);
    if (stored != mValues.end() && stored->second.text == text)
        return false;
    mValues[key] = {text, ++mRevision};
    return true;
}

std::optional<std::string> DeviceState::storeAll(const StatusMap& values)
{
    StatusMap changes;
    for (const auto& [key, text] : values)
    {
        if (store(key, text))
            changes.emplace_hint(changes.end(), key, text);
    }
    return changes.empty() ? std::nullopt : std::optional(BrokerProtocol::writeStatusUpdate(changes));
}

void DeviceState::applyToTimer(const BrokerProtocol::Command& post)
{
    Timer& timer = mTimers.try_emplace(post.text, Timer{veskcommon::Stopwatch(post.text), 0}).first->second;
    const uint64_t startedBefore = timer.stopwatch.getLastStartTime();
    if (post.key == Key::startTimer)
        timer.stopwatch.start();
    else if (post.key == Key::stopTimer)
        timer.stopwatch.stop();
    else if (post.key == Key::resetTimer)
        timer.stopwatch.reset();
    else
        timer.stopwatch.restart();
    // Starting a timer that runs already starts nothing.
    if (timer.stopwatch.getLastStartTime() != startedBefore)
        timer.lastStarted = microsecondsSinceEpoch();
}

StatusMap DeviceState::allValues() const
{
    StatusMap values;
    for (const auto& [key, value] : mValues)
        values.emplace_hint(values.end(), key, value.text);
    return values;
}

StatusMap DeviceState::valuesOf(const StatusKeys& keys) const
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

uint64_t DeviceState::elapsed(const std::string& name)
{
    const auto timer = mTimers.find(name);
    return timer == mTimers.end() ? 0 : timer->second.stopwatch.getElapsedTime();
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
