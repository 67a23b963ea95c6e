#ifndef TESTS_SUPPORT_PROGRAMNAME_H
#define TESTS_SUPPORT_PROGRAMNAME_H

#include <fstream>
#include <string>

#include "tests/support/Wait.h"

/// The kernel's name of a process that runs this program of the build. All emulated programs have the name of
/// the emulator, as this one has.
inline std::string kernelNameOf(const std::string& program)
{
    if (!isEmulated)
        return program;
    std::string emulator;
    std::ifstream file("/proc/self/comm");
    std::getline(file, emulator);
    return emulator;
}

#endif
