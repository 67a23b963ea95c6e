#ifndef PROTOCOL_TIMERREADING_H
#define PROTOCOL_TIMERREADING_H

#include <cstdint>

namespace BrokerProtocol
{

/// The state of a timer at one moment.
struct TimerReading
{
    uint64_t elapsed = 0;     ///< microseconds, including the running span
    uint64_t lastStarted = 0; ///< microseconds since the Unix epoch; 0: never
    bool isRunning = false;
};

/// The broker refuses a reading with a larger number: some 142 years. The state file can hold twice as much,
/// so a running timer has room.
constexpr uint64_t mostTimerMicroseconds = uint64_t{1} << 52U;

} // namespace BrokerProtocol

#endif
