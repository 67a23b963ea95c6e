// Posts an event: post-event NAME VALUE [DELAY-MS]
// Exits 0 when the broker has published it, 1 when it did not confirm that in time, 2 for a usage error.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "statusmanager/StatusManager.h"

int main(int argc, char** argv)
{
    if (argc < 3 || argc > 4)
    {
        std::fprintf(stderr, "usage: post-event NAME VALUE [DELAY-MS]\n");
        return 2;
    }
    const auto delay = argc == 4 ? static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)) : 0;

    StatusManager* manager = StatusManager::getInstance(false);

    // Events are not stored: this event reaches only the processes that are subscribed at that moment.
    manager->postEvent(argv[1], argv[2], delay);

    // A delayed event waits in this process, so the process must live until it is due. sync() does not wait
    // for an event that is not yet due, but does wait for a due event.
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    constexpr int timeoutMs = 5000;
    if (!manager->sync(timeoutMs))
    {
        std::fprintf(stderr, "post-event: the broker did not answer in time\n");
        return 1;
    }
    std::printf("posted %s\n", argv[1]);
    return 0;
}
