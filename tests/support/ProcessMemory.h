#ifndef TESTS_SUPPORT_PROCESSMEMORY_H
#define TESTS_SUPPORT_PROCESSMEMORY_H

#include <cstddef>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "tests/support/Sanitized.h"
#include "tests/support/Wait.h"

/// Whether a process's memory shows how much its program uses. Sanitizers and emulators use memory
/// themselves.
constexpr bool isMemoryTelling = !isSanitized && !isEmulated;

/// Resets the peak ("VmHWM") to the memory that the process has now.
/// @param process its id, or "self"
inline void resetPeakMemory(const std::string& process)
{
    const std::string resetPeak = "5";
    std::ofstream("/proc/" + process + "/clear_refs") << resetPeak;
}

/// Bytes that the kernel counts for a process: "VmRSS" now, "VmHWM" at the peak.
/// @param process its id, or "self"
inline std::size_t memoryOf(const std::string& process, const std::string& name)
{
    constexpr std::size_t kibi = 1024;
    std::ifstream status("/proc/" + process + "/status");
    for (std::string word; status >> word;)
    {
        std::size_t number = 0;
        if (word == name + ":" && status >> number)
            return number * kibi;
    }
    ADD_FAILURE() << "no " << name;
    return 0;
}

#endif
