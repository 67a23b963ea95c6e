#include "broker/Descriptors.h"

#include <algorithm>
#include <cstdint>
#include <sys/resource.h>

namespace
{

// Reserves descriptors for the ports, the state file, the log, and a connection that is just being refused.
// The reserve is a quarter of the limit, so that it does not use up a low one, within these bounds.
constexpr std::size_t smallestReserve = 24;
constexpr std::size_t largestReserve = 100;
constexpr std::size_t ports = 3;

std::size_t reserveOf(std::size_t limit)
{
    return std::clamp(limit / (ports + 1), smallestReserve, largestReserve);
}

// The limit that makes connectionsPerPort() return this number.
std::size_t limitFor(std::size_t connectionsPerPort)
{
    return ports * connectionsPerPort + std::clamp(connectionsPerPort, smallestReserve, largestReserve);
}

} // namespace

std::size_t Descriptors::raiseLimit(std::size_t connectionsPerPort)
{
    constexpr rlim_t usual = 1024; // if the system does not report one
    rlimit limit{usual, usual};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t wanted = limitFor(connectionsPerPort);
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
    const std::size_t reserve = reserveOf(limit);
    return limit <= reserve ? 1 : std::max<std::size_t>(1, (limit - reserve) / ports);
}
