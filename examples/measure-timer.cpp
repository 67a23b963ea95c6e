// Measures with a timer in the broker, so that every process can read it: measure-timer
// Prints how long the work took. Exits 0, or 1 when the broker gave no time.

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

    // The first use makes the timer. restartTimer() always begins at 0. startTimer() would continue from the
    // measured time, and do nothing while the timer runs.
    manager->restartTimer(timer);
    work();
    manager->stopTimer(timer);

    // A query follows earlier posts of the same thread, so the timer is stopped here.
    const uint64_t microseconds = manager->getTimerElapsed(timer);
    if (microseconds == 0)
    {
        std::fprintf(stderr, "measure-timer: no time from the broker\n");
        return 1;
    }
    std::printf("the work took %.3f ms\n", static_cast<double>(microseconds) / 1000);
    return 0;
}
