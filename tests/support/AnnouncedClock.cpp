// Linked into the broker that the tests run. Setting the clock prints a line, and changes only this process.

#include <atomic>
#include <cstdio>
#include <ctime>
#include <sys/time.h>

#include "tests/support/MachineClock.h"

namespace
{

std::atomic<time_t> ahead{0}; // seconds ahead of the machine's clock

} // namespace

extern "C" __attribute__((visibility("default"))) int settimeofday(const timeval* time,
                                                                   const struct timezone*) noexcept
{
    fprintf(stderr, "clock set to %lld\n", static_cast<long long>(time->tv_sec));
    timespec now{};
    machineClock(CLOCK_REALTIME, &now);
    ahead = time->tv_sec - now.tv_sec;
    return 0;
}

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    const int result = machineClock(clock, time);
    if (clock == CLOCK_REALTIME)
        time->tv_sec += ahead;
    return result;
}
