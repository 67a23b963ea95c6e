// Posts many values and makes sure that all arrive: batch-upload [COUNT]
// Exits 0 when the broker has taken all of them, 1 when it did not confirm that in time.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "statusmanager/StatusManager.h"

namespace
{

// At most this many posts wait in this process, so the program notices a stopped broker before it posts more.
constexpr unsigned long postsBetweenSyncs = 250;
constexpr int timeoutMs = 10000;

bool upload(StatusManager& manager, unsigned long count)
{
    for (unsigned long i = 1; i <= count; ++i)
    {
        manager.postStatus("batch." + std::to_string(i), std::to_string(i * i));
        if (i % postsBetweenSyncs == 0 && !manager.sync(timeoutMs))
            return false;
    }
    return manager.sync(timeoutMs);
}

} // namespace

int main(int argc, char** argv)
{
    const unsigned long count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000;
    if (!upload(*StatusManager::getInstance(false), count))
    {
        // After a sync() that timed out, this process gets no further answers, so it must end.
        std::fprintf(stderr, "batch-upload: the broker did not answer in time\n");
        return 1;
    }
    std::printf("uploaded %lu values\n", count);
    return 0;
}
