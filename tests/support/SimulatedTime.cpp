#include "tests/support/SimulatedTime.h"

#include <ctime>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace
{

thread_local SimulatedTime* current = nullptr;

std::chrono::nanoseconds machineTime()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

} // namespace

SimulatedTime::SimulatedTime(std::function<void(Duration)> passing) : mPassing(std::move(passing))
{
    current = this;
}

SimulatedTime::~SimulatedTime()
{
    current = nullptr;
}

void SimulatedTime::pass(Duration span)
{
    mElapsed += span;
    mPassing(span);
}

void SimulatedTime::sleep(Duration span)
{
    mElapsed += std::exchange(mNextStop, Duration(0)); // the stopped time passes in one step
    pass(span);
}

// ------------------------------------------------------------------------ replaces the libraries' functions
//
// The program's definitions take precedence over the libraries'.

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept
{
    constexpr std::chrono::hours begin{1};
    return time_point(current == nullptr ? machineTime() : duration(begin + current->elapsed()));
}

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t microseconds)
{
    if (current != nullptr)
    {
        current->sleep(std::chrono::microseconds(microseconds));
        return 0;
    }
    timespec span{};
    span.tv_sec = static_cast<time_t>(microseconds / 1000000);
    span.tv_nsec = static_cast<long>(microseconds % 1000000) * 1000;
    return nanosleep(&span, nullptr);
}

extern "C" __attribute__((visibility("default"))) int sched_yield() noexcept
{
    return current != nullptr ? 0 : static_cast<int>(syscall(SYS_sched_yield));
}
