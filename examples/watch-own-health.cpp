// Posts a heartbeat, and ends when the broker no longer answers: watch-own-health MILLISECONDS
// Posts every MILLISECONDS until SIGINT or SIGTERM. Exits 1 when its supervisor should restart it.

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "StopSignal.h"
#include "statusmanager/Helpers.h"

namespace
{

constexpr std::chrono::seconds timeForAnswer(3);

// Posts all values of this process. If the broker reports that posts may have been lost, posts again: the
// broker may have been restarted.
void tell(unsigned beats)
{
    do
        status::post("heartbeat", beats);
    while (!status::sync(timeForAnswer) && status::isHealthy());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: watch-own-health MILLISECONDS\n");
        return 2;
    }
    const std::chrono::milliseconds interval(std::strtol(argv[1], nullptr, 10));
    status::manager();
    StopSignal::install();

    unsigned beats = 0;
    do
    {
        tell(++beats);
        if (!status::isHealthy())
        {
            // After a sync that timed out, this process gets no further answers.
            std::fprintf(stderr, "watch-own-health: the broker does not answer any more\n");
            return 1;
        }
        std::printf("heartbeat %u\n", beats);
        std::fflush(stdout);
    } while (!StopSignal::waitUntil(std::chrono::steady_clock::now() + interval));
    return 0;
}
