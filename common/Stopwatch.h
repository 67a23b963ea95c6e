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
    /// The copy runs if the original does, and from then on by itself.
    Stopwatch(const Stopwatch&) = default;
    Stopwatch& operator=(const Stopwatch&) = default;
    /// @}
    ~Stopwatch();

    /// Begins timing from now and keeps the accumulated time. Does nothing while running: the span under way,
    /// and the time of its start, stay.
    void start();

    /// Ends timing and adds the span to the accumulated time. Does nothing while stopped.
    void stop();

    /// Clears the accumulated time. A span under way goes on and still counts from its start; restart()
    /// begins anew.
    void reset();

    /// Clears the accumulated time and begins timing from now, whether it was running or not.
    void restart();

    /// Microseconds accumulated, the span under way included.
    uint64_t getElapsedTime();

    /// When it was last started, in microseconds of the monotonic clock; 0 when it never was.
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
    // Seconds and microseconds apart, 32 bits each, as a timeval is on the 32-bit targets. The monotonic
    // clock counts from boot: 68 years fit.
    int32_t mStartSeconds = 0;
    int32_t mStartMicroseconds = 0;
};

} // namespace veskcommon

#endif
