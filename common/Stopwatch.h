#ifndef VESK_COMMON_STOPWATCH_H
#define VESK_COMMON_STOPWATCH_H

#include <cstdint>
#include <string>

#include "common/Export.h"

/// The stopwatch.
namespace veskcommon
{

/// A named stopwatch on the monotonic clock, so that setting the wall clock does not disturb it. A plain
/// value: copies are independent. Not thread-safe.
class OV_EXPORT Stopwatch
{
public:
    /// A stopped stopwatch that shows 0. The name may be empty.
    explicit Stopwatch(std::string name);
    /// @{
    /// The copy runs if the original runs; afterwards the two are independent.
    Stopwatch(const Stopwatch&) = default;
    Stopwatch& operator=(const Stopwatch&) = default;
    /// @}
    ~Stopwatch();

    /// Begins a span and keeps the accumulated time. Does nothing while the stopwatch runs.
    void start();

    /// Ends the span and adds it to the accumulated time. Does nothing while the stopwatch is stopped.
    void stop();

    /// Clears the accumulated time. A running span continues and still counts from its start; see restart().
    void reset();

    /// Clears the accumulated time and begins a new span, whether the stopwatch was running or not.
    void restart();

    /// The accumulated time in microseconds, including the running span.
    uint64_t getElapsedTime();

    /// When the last span began, in microseconds of the monotonic clock; 0 if none ever began.
    uint64_t getLastStartTime();

    /// As given to the constructor.
    std::string getName();

private:
    void beginSpan();
    uint64_t currentSpan() const;
    uint64_t startTime() const;

    std::string mName;
    uint64_t mAccumulated = 0; // microseconds
    bool mRunning = false;
    // Seconds and microseconds in 32 bits each, like a timeval on the 32-bit targets. The monotonic clock
    // counts from boot, so 68 years fit.
    int32_t mStartSeconds = 0;
    int32_t mStartMicroseconds = 0;
};

} // namespace veskcommon

#endif
