#ifndef TESTS_SUPPORT_SIMULATEDTIME_H
#define TESTS_SUPPORT_SIMULATEDTIME_H

#include <chrono>
#include <functional>

/// While it lives, the steady clock of the calling thread stands still but for usleep(), which takes no time
/// and moves the clock on; giving way to other threads takes no time either. So a wait of seconds is over at
/// once and takes exactly so long on any machine. It holds for what is compiled into the program; the other
/// threads have the machine's clock.
class SimulatedTime
{
public:
    using Duration = std::chrono::microseconds;

    /// @param passing called with each span that passes, when it has passed
    explicit SimulatedTime(std::function<void(Duration)> passing);
    ~SimulatedTime();

    SimulatedTime(const SimulatedTime&) = delete;
    SimulatedTime& operator=(const SimulatedTime&) = delete;

    /// Time that has passed since the beginning.
    Duration elapsed() const { return mElapsed; }

    void pass(Duration span);

    /// Once, the next usleep() takes so much longer, as if the thread had been stopped.
    void stopDuringNextSleep(Duration span) { mNextStop = span; }
    void sleep(Duration span);

private:
    std::function<void(Duration)> mPassing;
    Duration mElapsed{0};
    Duration mNextStop{0};
};

#endif
