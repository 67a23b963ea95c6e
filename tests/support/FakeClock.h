#ifndef TESTS_SUPPORT_FAKECLOCK_H
#define TESTS_SUPPORT_FAKECLOCK_H

#include <optional>
#include <sys/time.h>

/// Replaces the calls that set the machine's clock, in every test program. They record the time and succeed.
namespace FakeClock
{

struct Setting
{
    timeval time;
    bool hadTimeZone;
};

/// The last time that was set since reset(); nothing if none was set.
std::optional<Setting> lastSetting();
void reset();

/// Makes the calls fail with this errno; 0 lets them succeed again.
void failWith(int error);

} // namespace FakeClock

#endif
