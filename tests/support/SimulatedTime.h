#ifndef TESTS_SUPPORT_SIMULATEDTIME_H
#define TESTS_SUPPORT_SIMULATEDTIME_H

#include <chrono>
#include <functional>

/// While it lives, only usleep() advances the steady clock of the calling thread, and it returns at once. So
/// a wait of seconds takes no real time, and the same simulated time on any machine. This holds for code that
/// is compiled into the program. All other threads keep the machine's clock.
class SimulatedTime
{
public:
    using Duration = std::chrono::microseconds;

    /// @param passing called after each step of time, with its length
    explicit SimulatedTime(std::function<void(Duration)> passing);
    ~SimulatedTime();

    SimulatedTime(const SimulatedTime&) = delete;
    SimulatedTime& operator=(const SimulatedTime&) = delete;

    /// The simulated time since the construction.
    Duration elapsed() const { return mElapsed; }

    void pass(Duration span);

    /// Makes the next usleep() take this much longer, as if the process had been stopped.
    void stopDuringNextSleep(Duration span) { mNextStop = span; }
    void sleep(Duration span);

private:
    std::function<void(Duration)> mPassing;
    Duration mElapsed{0};
    Duration mNextStop{0};
};

#endif
