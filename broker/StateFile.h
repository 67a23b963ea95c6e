#ifndef BROKER_STATEFILE_H
#define BROKER_STATEFILE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "broker/Options.h"
#include "statusmanager/StatusTypes.h"

/// What the device holds, or what of it has changed: as it is kept over a restart of the broker.
struct SavedState
{
    struct Timer
    {
        uint64_t accumulated = 0; ///< microseconds, without the span under way
        uint64_t spanStart = 0;   ///< of the span under way, microseconds of the monotonic clock; 0: stopped
        uint64_t lastStarted = 0; ///< microseconds since the Unix epoch; 0: never
    };

    StatusMap values;
    std::map<std::string, Timer> timers;
    std::map<std::string, uint32_t> counters;

    bool empty() const { return values.empty() && timers.empty() && counters.empty(); }
};

/// The moment of this boot: running timers go on over a restart of the broker, not over one of the device.
struct BootMoment
{
    std::string bootId;    ///< the kernel's id of this boot
    uint64_t microseconds; ///< on the monotonic clock

    static BootMoment now();
};

/// Keeps the state in an SQLite database.
class StateFile
{
public:
    StateFile(const std::string& path, StateSync sync, const std::vector<std::string>& keys);
    ~StateFile();

    SavedState load(const BootMoment& now = BootMoment::now());
    void commit(const SavedState& changes, const BootMoment& now = BootMoment::now());

    uint64_t commits() const;
    uint64_t errors() const;

private:
    class Implementation;
    std::unique_ptr<Implementation> mImplementation;
};

#endif
