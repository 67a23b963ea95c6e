#ifndef BROKER_DEVICESTATE_H
#define BROKER_DEVICESTATE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "broker/Options.h"
#include "broker/Refusals.h"
#include "broker/SavedState.h"
#include "statusmanager/BrokerProtocol.h"

/// What the device holds: status values, timers and counters. No sockets, one thread.
///
/// What exceeds a limit is refused, name by name: the rest of the same post is applied. What is there already
/// can always be changed, within the limits of its size.
class DeviceState
{
public:
    /// Both must outlive it; limits may change.
    DeviceState(const Limits& limits, Refusals& refusals) : mLimits(limits), mRefusals(refusals) {}

    /// Begins with what was kept, over all limits. Whoever restores keeps: changes are noted from now on.
    void restore(SavedState state);

    /// What has changed since the last call, if changes are noted.
    SavedState takeChanges();

    /// All it holds.
    SavedState everything() const { return {allValues(), mTimers, mCounters}; }

    /// Applies a post (any but updateSystemTime) and returns the notification to publish for it, if any: a
    /// post that changes no value publishes nothing.
    std::optional<std::string> apply(BrokerProtocol::Command post);

    /// Answers a request; nothing if it exceeds a limit.
    std::optional<std::string> answer(const BrokerProtocol::Command& request);

    /// Counts the changes of status values so far.
    uint64_t revision() const { return mRevision; }

    /// The present values of the keys that changed after this revision.
    StatusMap changedSince(uint64_t revision) const;

    std::size_t keys() const { return mValues.size(); }
    std::size_t storedBytes() const { return mStoredBytes; }
    std::size_t timers() const { return mTimers.size(); }
    std::size_t counters() const { return mCounters.size(); }
    bool hasRunningTimers() const;

private:
    struct Value
    {
        std::string text;
        uint64_t revision;
    };
    using Values = std::map<std::string, Value>;
    using Timer = SavedState::Timer;

    bool store(const std::string& key, const std::string& text);
    bool mayStore(Values::const_iterator stored, const std::string& key, const std::string& text);
    std::optional<std::string> storeAll(StatusMap values);
    std::optional<std::string> eventUpdate(StatusMap events);
    void applyToTimer(const BrokerProtocol::Command& post);
    void setCounter(const std::string& name, uint32_t value);
    std::optional<std::string> incrementCounter(const std::string& name);
    bool hasGoodSize(const std::string& name);
    bool hasGoodSize(const std::string& name, const std::string& value);
    template <typename Map>
    bool mayName(const Map& map, const std::string& name, std::size_t most, Refusal kind);
    StatusMap valuesOf(const std::vector<std::string>& keys) const;
    StatusMap allValues() const;
    std::string valueOf(const std::string& key) const;
    uint64_t elapsed(const std::string& name) const;
    uint64_t lastStarted(const std::string& name) const;
    uint32_t counter(const std::string& name) const;

    const Limits& mLimits;
    Refusals& mRefusals;
    uint64_t mRevision = 0;
    std::size_t mStoredBytes = 0;
    Values mValues;
    std::map<std::string, Timer> mTimers;
    std::map<std::string, uint32_t> mCounters;
    bool mNotesChanges = false;
    SavedState mChanges;
};

#endif
