// Waits for a value: wait-for-value KEY VALUE SECONDS
// Exits 0 when KEY has VALUE, 1 if not within SECONDS, 2 for a usage error, 3 when no broker answered
// within SECONDS.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "statusmanager/Helpers.h"

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        std::fprintf(stderr, "usage: wait-for-value KEY VALUE SECONDS\n");
        return 2;
    }
    const std::string wanted = argv[2];
    const std::chrono::seconds time(std::strtol(argv[3], nullptr, 10));

    // StatusManager::getInstance(false) would wait without a time limit.
    StatusManager* manager = status::connectWithin(time);
    if (manager == nullptr)
    {
        std::fprintf(stderr, "wait-for-value: no broker answers\n");
        return 3;
    }
    const auto isWanted = [&wanted](const std::string& value) { return value == wanted; };
    if (!status::waitFor(argv[1], isWanted, time, *manager))
    {
        std::fprintf(stderr, "wait-for-value: %s did not become %s\n", argv[1], wanted.c_str());
        return 1;
    }
    std::printf("%s=%s\n", argv[1], wanted.c_str());
    return 0;
}
