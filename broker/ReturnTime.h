#ifndef BROKER_RETURNTIME_H
#define BROKER_RETURNTIME_H

#include "broker/base/Clock.h"

/// The time within which the clients of an earlier broker come back. Posts may have died with that broker, so
/// a first "Sync" in this time waits until it is clear whether its client is one of those.
class ReturnTime
{
public:
    /// They try each 100 to 200 ms, on a busy machine somewhat later.
    static constexpr std::chrono::milliseconds length{500};

    /// @param serving since when the broker serves
    explicit ReturnTime(TimePoint serving) : mServing(serving) {}

    bool isOn(TimePoint now) const { return now < mServing + length; }

private:
    TimePoint mServing;
};

#endif
