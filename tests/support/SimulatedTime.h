#ifndef TESTS_SUPPORT_SIMULATEDTIME_H
#define TESTS_SUPPORT_SIMULATEDTIME_H

#include <chrono>
#include <functional>

/// While it lives, only usleep() moves the steady clock of the calling thread on, and returns at once. So a
/// wait of seconds is over at once, and takes exactly as long on any machine. This holds for code that is
/// compiled into the program. All other threads have the machine's clock.
class SimulatedTime
{
public:
    using Duration = std::chrono::microseconds;

    /// @param passing called after each span of time, with its length
    explicit SimulatedTime(std::function<void(Duration)> passing);
    ~SimulatedTime();

    SimulatedTime(const SimulatedTime&) = delete;
    SimulatedTime& operator=(const SimulatedTime&) = delete;

    /// Time since the construction.
    Duration elapsed() const { return mElapsed; }

    void pass(Duration span);

    /// The next usleep() takes this much longer, as if the process had been stopped.
    void stopDuringNextSleep(Duration span) { mNextStop = span; }
    void sleep(Duration span);

private:
    std::function<void(Duration)> mPassing;
    Duration mElapsed{0};
    Duration mNextStop{0};
};

#endif
