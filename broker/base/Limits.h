#ifndef BROKER_BASE_LIMITS_H
#define BROKER_BASE_LIMITS_H

#include <cstddef>

/// How much of the broker one client, or all clients together, may use. The broker refuses what exceeds a
/// limit.
struct Limits
{
    std::size_t keys = 10000;
    std::size_t keyBytes = 255; ///< also names of timers and counters
    std::size_t valueBytes = std::size_t{64} * 1024;
    std::size_t storedBytes = std::size_t{4} * 1024 * 1024; ///< keys and values together
    std::size_t messageBytes = std::size_t{1024} * 1024;    ///< of a message, over all frames
    std::size_t timers = 1000;
    std::size_t counters = 1000;
    std::size_t notifyBytes = std::size_t{4} * 1024 * 1024; ///< notifications on their way, for all
                                                            ///< subscribers
    std::size_t memory = std::size_t{16} * 1024 * 1024;     ///< of all connections together
    std::size_t connections = 1000;                         ///< per port
};

#endif
