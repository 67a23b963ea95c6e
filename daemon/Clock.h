#ifndef DAEMON_CLOCK_H
#define DAEMON_CLOCK_H

#include <chrono>

/// The clock of the daemons' own waits. It is monotonic: clients may set the wall clock through the broker.
using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

#endif
