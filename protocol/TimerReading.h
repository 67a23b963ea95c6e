#ifndef PROTOCOL_TIMERREADING_H
#define PROTOCOL_TIMERREADING_H

#include <cstdint>

namespace BrokerProtocol
{

/// A timer at one moment.
struct TimerReading
{
    uint64_t elapsed = 0;     ///< microseconds, with the span under way
    uint64_t lastStarted = 0; ///< microseconds since the Unix epoch; 0: never
    bool isRunning = false;
};

/// No reading that the broker takes has a larger number: some 142 years. The state file holds twice as much,
/// so a timer that runs on has room.
constexpr uint64_t mostTimerMicroseconds = uint64_t{1} << 52U;

} // namespace BrokerProtocol

#endif
