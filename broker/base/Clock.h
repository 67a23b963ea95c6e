#ifndef BROKER_BASE_CLOCK_H
#define BROKER_BASE_CLOCK_H

#include <chrono>

/// What the broker measures its own waiting with: monotonic, since clients may set the wall clock through it.
using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

#endif
