#ifndef TESTS_MEMORY_LONGNAMES_H
#define TESTS_MEMORY_LONGNAMES_H

#include <gtest/gtest.h>
#include <string>

#include "statusmanager/StatusTypes.h"
#include "tests/memory/FailingMemory.h"

/// A name that is too long for a string to hold without an allocation.
inline std::string name(const std::string& kind, unsigned number = 0)
{
    return kind + " of a length that takes memory, " + std::to_string(number);
}

inline StatusKeys names(const std::string& kind, unsigned first, unsigned end)
{
    StatusKeys all;
    for (; first < end; ++first)
        all.push_back(name(kind, first));
    return all;
}

inline std::string shown(const StatusMap& map)
{
    const FailingMemory::Spared spared;
    return testing::PrintToString(map);
}

#endif
