#ifndef TESTS_FLEET_SIMULATEDDEVICE_H
#define TESTS_FLEET_SIMULATEDDEVICE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "bridge/Uplink.h"
#include "bridge/ValueBook.h"

/// A device's bridge without a broker: the real sessions, values and files. Many of them have room in one
/// process.
class SimulatedDevice
{
public:
    using Values = std::map<std::string, std::string>;

    explicit SimulatedDevice(BridgeOptions options);

    const BridgeOptions& options() const { return mOptions; }

    /// Starts the bridge: it reads its file, and connects.
    void start();

    /// Ends the bridge without a goodbye. The device goes on.
    void kill() { mUplink.reset(); }
    bool isRunning() const { return mUplink.has_value(); }

    /// The device changes a value; empty: a reset.
    void change(const std::string& key, const std::string& value);

    /// The device has an event, which counts only while the bridge runs.
    void event();

    int descriptor() const { return mUplink ? mUplink->descriptor() : -1; }
    short wanted() const { return mUplink ? mUplink->wanted() : static_cast<short>(0); }

    /// When to call work(), whatever the poll says.
    TimePoint due(TimePoint now) const;
    void work(short events, TimePoint now);

    const Values& values() const { return mValues; }
    int64_t events() const { return mEvents; }

private:
    const BridgeOptions mOptions;
    ValueBook mBook;
    Values mValues; // that are not reset
    int64_t mEvents = 0;
    TimePoint mLastWork{};
    std::optional<Uplink> mUplink;
};

#endif
