#ifndef STATUSMANAGER_HELPERS_DEADLINE_H
#define STATUSMANAGER_HELPERS_DEADLINE_H

#include <algorithm>
#include <chrono>

namespace status
{

/// A moment of the monotonic clock, because this product sets the wall clock.
using Deadline = std::chrono::steady_clock::time_point;

/// The end of `timeout`, which may be any number. More than a year counts as a year.
inline Deadline deadlineIn(std::chrono::milliseconds timeout)
{
    constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);
    return std::chrono::steady_clock::now() + std::min(timeout, longest);
}

} // namespace status

#endif
