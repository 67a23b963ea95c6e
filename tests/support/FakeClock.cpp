#include "tests/support/FakeClock.h"

#include <cerrno>
#include <ctime>
#include <mutex>

namespace
{

std::mutex mutex;
std::optional<FakeClock::Setting> last;
int failure = 0;

int record(const timeval& time, bool hadTimeZone)
{
    const std::lock_guard<std::mutex> lock(mutex);
    last = FakeClock::Setting{time, hadTimeZone};
    errno = failure;
    return failure == 0 ? 0 : -1;
}

} // namespace

// The program's definition takes precedence over the C library's, also for calls from shared libraries.
extern "C" __attribute__((visibility("default"))) int settimeofday(const timeval* time,
                                                                   const struct timezone* zone) noexcept
{
    return record(*time, zone != nullptr);
}

extern "C" __attribute__((visibility("default"))) int clock_settime(clockid_t, const timespec* time) noexcept
{
    return record({time->tv_sec, time->tv_nsec / 1000}, false);
}

#if defined(__GLIBC__) && defined(__USE_TIME_BITS64) && __SIZEOF_POINTER__ == 4
// With 64-bit times, the linker knows the two functions above by other names. Code compiled without 64-bit
// times must not reach the machine's clock either.
struct Timeval32
{
    int32_t seconds;
    int32_t microseconds;
};
struct Timespec32
{
    int32_t seconds;
    int32_t nanoseconds;
};
extern "C" __attribute__((visibility("default"))) int settimeofday32(const Timeval32* time,
                                                                     const void* zone) noexcept
    asm("settimeofday");
extern "C" __attribute__((visibility("default"))) int clock_settime32(clockid_t,
                                                                      const Timespec32* time) noexcept
    asm("clock_settime");

int settimeofday32(const Timeval32* time, const void* zone) noexcept
{
    return record({time->seconds, time->microseconds}, zone != nullptr);
}

int clock_settime32(clockid_t, const Timespec32* time) noexcept
{
    return record({time->seconds, time->nanoseconds / 1000}, false);
}
#endif

std::optional<FakeClock::Setting> FakeClock::lastSetting()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return last;
}

void FakeClock::reset()
{
    const std::lock_guard<std::mutex> lock(mutex);
    last.reset();
    failure = 0;
}

void FakeClock::failWith(int error)
{
    const std::lock_guard<std::mutex> lock(mutex);
    failure = error;
}
