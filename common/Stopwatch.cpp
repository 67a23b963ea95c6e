#include "common/Stopwatch.h"

#include <ctime>
#include <utility>

namespace veskcommon
{

namespace
{

constexpr uint64_t microsecondsPerSecond = 1000000;

timespec monotonicNow()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

} // namespace

Stopwatch::Stopwatch(std::string name) : mName(std::move(name)) {}

Stopwatch::~Stopwatch() = default;

void Stopwatch::start()
{
    if (!mRunning)
        beginSpan();
}

void Stopwatch::stop()
{
    mAccumulated += currentSpan();
    mRunning = false;
}

void Stopwatch::reset()
{
    mAccumulated = 0;
}

void Stopwatch::restart()
{
    mAccumulated = 0;
    beginSpan();
}

uint64_t Stopwatch::getElapsedTime()
{
    return mAccumulated + currentSpan();
}

uint64_t Stopwatch::getLastStartTime()
{
    return startTime();
}

std::string Stopwatch::getName()
{
    return mName;
}

void Stopwatch::beginSpan()
{
    const timespec now = monotonicNow();
    mStartSeconds = static_cast<int32_t>(now.tv_sec);
    mStartMicroseconds = static_cast<int32_t>(now.tv_nsec / 1000);
    mRunning = true;
}

uint64_t Stopwatch::currentSpan() const
{
    if (!mRunning)
        return 0;
    const timespec now = monotonicNow();
    return static_cast<uint64_t>(now.tv_sec) * microsecondsPerSecond +
           static_cast<uint64_t>(now.tv_nsec / 1000) - startTime();
}

uint64_t Stopwatch::startTime() const
{
    return static_cast<uint64_t>(mStartSeconds) * microsecondsPerSecond +
           static_cast<uint64_t>(mStartMicroseconds);
}

} // namespace veskcommon
