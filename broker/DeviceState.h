#ifndef BROKER_DEVICESTATE_H
#define BROKER_DEVICESTATE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "common/Stopwatch.h"
#include "statusmanager/BrokerProtocol.h"

/// What the device holds: status values, timers and counters. No sockets, one thread.
class DeviceState
{
public:
    /// Applies a post (any but updateSystemTime) and returns the notification to publish for it, if any: a
    /// post that changes no value publishes nothing.
    std::optional<std::string> apply(const BrokerProtocol::Command& post);

    /// Answers a request.
    std::string answer(const BrokerProtocol::Command& request);

    /// Counts the changes of status values so far.
    uint64_t revision() const { return mRevision; }

    /// The present values of the keys that changed after this revision.
    StatusMap changedSince(uint64_t revision) const;

private:
    struct Value
    {
        std::string text;
        uint64_t revision;
    };

    struct Timer
    {
        veskcommon::Stopwatch stopwatch;
        uint64_t lastStarted; ///< microseconds since the Unix epoch; 0: never
    };

    bool store(const std::string& key, const std::string& text);
    std::optional<std::string> storeAll(const StatusMap& values);
    void applyToTimer(const BrokerProtocol::Command& post);
    StatusMap valuesOf(const StatusKeys& keys) const;
    StatusMap allValues() const;
    std::string valueOf(const std::string& key) const;
    uint64_t elapsed(const std::string& name);
    uint64_t lastStarted(const std::string& name) const;
    uint32_t counter(const std::string& name) const;

    uint64_t mRevision = 0;
    std::map<std::string, Value> mValues;
    std::map<std::string, Timer> mTimers;
    std::map<std::string, uint32_t> mCounters;
};

#endif
