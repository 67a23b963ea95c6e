#ifndef BROKER_OPTIONS_H
#define BROKER_OPTIONS_H

#include <chrono>
#include <string>
#include <vector>

#include "broker/base/Limits.h"
#include "broker/state/StateSync.h"

struct Options
{
    bool allowSetTime = false;
    int logLevel = 5;
    std::chrono::seconds heartbeat{5}; ///< 0: none
    std::string stateFile;             ///< empty: no state is kept
    StateSync stateSync = StateSync::Normal;
    std::vector<std::string> stateKeys; ///< globs; none: all of the state is kept
    std::string policy;                 ///< a file or a folder; empty: clients may do everything
    Limits limits;
};

#endif
