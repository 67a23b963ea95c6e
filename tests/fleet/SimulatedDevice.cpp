#include "tests/fleet/SimulatedDevice.h"

#include <algorithm>
#include <utility>

SimulatedDevice::SimulatedDevice(BridgeOptions options)
    : mOptions(std::move(options)), mBook([](const std::string&) { return std::chrono::milliseconds(0); })
{
}

void SimulatedDevice::start()
{
    mUplink.emplace(mOptions, mBook);
    mBook.replace(mValues, Clock::now());
    mUplink->setHasState(true);
}

void SimulatedDevice::change(const std::string& key, const std::string& value)
{
    if (value.empty())
        mValues.erase(key);
    else
        mValues[key] = value;
    mBook.change(key, value, Clock::now());
}

void SimulatedDevice::event()
{
    if (!mUplink)
        return;
    mUplink->addEvent("bell", std::to_string(++mEvents));
    work(0, Clock::now()); // the file has it before the bridge may be killed
}

// The bridge counts its second between two looks from now, as its own loop works at each turn.
TimePoint SimulatedDevice::due(TimePoint now) const
{
    constexpr std::chrono::seconds tick{1};
    return mUplink ? std::min(mUplink->due(now), mLastWork + tick) : TimePoint::max();
}

void SimulatedDevice::work(short events, TimePoint now)
{
    if (!mUplink)
        return;
    mLastWork = now;
    mUplink->work(events, now);
}
