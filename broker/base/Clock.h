#ifndef BROKER_BASE_CLOCK_H
#define BROKER_BASE_CLOCK_H

#include <chrono>

/// The clock of the broker's own waits. It is monotonic: clients may set the wall clock through the broker.
using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

#endif
