// Counts how often a program was started: count-restarts NAME [LIMIT]
// Exits 0; 1 after more than LIMIT starts, so that a supervisor can give up, or when the broker gave no
// number; 2 for a usage error.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "statusmanager/StatusManager.h"

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3)
    {
        std::fprintf(stderr, "usage: count-restarts NAME [LIMIT]\n");
        return 2;
    }
    const std::string counter = std::string(argv[1]) + ".starts";
    const unsigned long limit = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : UINT32_MAX;

    StatusManager* manager = StatusManager::getInstance(false);

    // The broker counts, so two processes that count at once get different numbers. Counting begins at 0; it
    // begins again after a restart of a broker without a state file. A result of 0 means failure.
    const uint32_t starts = manager->incrementCounter(counter);
    if (starts == 0)
    {
        std::fprintf(stderr, "count-restarts: no number from the broker\n");
        return 1;
    }
    std::printf("start number %u\n", static_cast<unsigned>(starts));
    return starts <= limit ? 0 : 1;
}
