#ifndef DAEMON_SYSTEMCLOCK_H
#define DAEMON_SYSTEMCLOCK_H

#include <cstdint>
#include <ctime>

/// A clock of the kernel. Not std::chrono: on 32-bit processors the C++ library's wall clock ends in 2038.
inline uint64_t microsecondsOf(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec / 1000);
}

#endif
