#ifndef BROKER_RETURNTIME_H
#define BROKER_RETURNTIME_H

#include "daemon/Clock.h"

/// The time within which the clients of an earlier broker reconnect. Posts may have died with that broker. So
/// a first "Sync" in this time waits until it is clear whether its client is one of them.
class ReturnTime
{
public:
    /// Clients try again every 100 to 200 ms; on a busy machine somewhat later.
    static constexpr std::chrono::milliseconds length{500};

    /// @param serving since when the broker serves
    explicit ReturnTime(TimePoint serving) : mServing(serving) {}

    bool isOn(TimePoint now) const { return now < mServing + length; }

private:
    TimePoint mServing;
};

#endif
