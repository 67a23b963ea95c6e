#include "broker/Descriptors.h"

#include <algorithm>
#include <cstdint>
#include <sys/resource.h>

namespace
{

// For the ports, the state file, the log, and a connection that is just being refused.
constexpr std::size_t reserve = 100;
constexpr std::size_t ports = 3;

} // namespace

std::size_t Descriptors::raiseLimit(std::size_t connectionsPerPort)
{
    constexpr rlim_t usual = 1024; // should the system not tell
    rlimit limit{usual, usual};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t wanted = ports * connectionsPerPort + reserve;
    if (limit.rlim_cur < wanted)
    {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    return static_cast<std::size_t>(std::min<rlim_t>(limit.rlim_cur, SIZE_MAX));
}

std::size_t Descriptors::connectionsPerPort(std::size_t limit)
{
    return limit <= reserve ? 1 : std::max<std::size_t>(1, (limit - reserve) / ports);
}
