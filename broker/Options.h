#ifndef BROKER_OPTIONS_H
#define BROKER_OPTIONS_H

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

/// What one client, or all of them, may use of the broker. What exceeds a limit is refused.
struct Limits
{
    std::size_t keys = 10000;
    std::size_t keyBytes = 255; ///< also of names of timers and counters
    std::size_t valueBytes = std::size_t{64} * 1024;
    std::size_t storedBytes = std::size_t{16} * 1024 * 1024; ///< keys and values together
    std::size_t messageBytes = std::size_t{1024} * 1024;     ///< over all frames
    std::size_t timers = 1000;
    std::size_t counters = 1000;
    std::size_t notifyBytes = std::size_t{4} * 1024 * 1024; ///< undelivered, per subscriber
    std::size_t connections = 1000;                         ///< per port
};

/// When changes of the state file reach the storage: SQLite's "synchronous".
enum class StateSync
{
    Off,
    Normal,
    Full,
};

struct Options
{
    bool allowSetTime = false;
    int logLevel = 5;
    std::chrono::seconds heartbeat{5}; ///< 0: none
    std::string stateFile;             ///< empty: nothing is kept
    StateSync stateSync = StateSync::Normal;
    std::vector<std::string> stateKeys; ///< globs; none: everything is kept
    Limits limits;
};

#endif
