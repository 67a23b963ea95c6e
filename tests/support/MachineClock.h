#ifndef TESTS_SUPPORT_MACHINECLOCK_H
#define TESTS_SUPPORT_MACHINECLOCK_H

#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

/// The kernel's clock_gettime(), for tests that replace the C library's. On 32 bits it uses the call that can
/// represent times after 2038.
inline int machineClock(clockid_t clock, timespec* time)
{
#ifdef SYS_clock_gettime64
    constexpr long call = SYS_clock_gettime64;
#else
    constexpr long call = SYS_clock_gettime;
#endif
    return static_cast<int>(syscall(call, clock, time));
}

#endif
