// Measures with a timer that the broker keeps, so that every process can read it: measure-timer
// Exits 0 with the time that the work took, 1 when the broker did not give one.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "statusmanager/StatusManager.h"

namespace
{

constexpr const char* timer = "example.sorting";

void work()
{
    std::vector<uint32_t> numbers(500000);
    uint32_t number = 1;
    for (uint32_t& one : numbers)
        one = number = number * 1664525U + 1013904223U;
    std::sort(numbers.begin(), numbers.end());
}

} // namespace

int main()
{
    StatusManager* manager = StatusManager::getInstance(false);

    // The timer comes into being with its first use. restartTimer() begins at 0, whatever it stood at;
    // startTimer() goes on from there and does nothing while the timer runs.
    manager->restartTimer(timer);
    work();
    manager->stopTimer(timer);

    // A query comes behind the posts of the same thread, so it sees the timer stopped.
    const uint64_t microseconds = manager->getTimerElapsed(timer);
    if (microseconds == 0)
    {
        std::fprintf(stderr, "measure-timer: no time from the broker\n");
        return 1;
    }
    std::printf("the work took %.3f ms\n", static_cast<double>(microseconds) / 1000);
    return 0;
}
