#ifndef TESTS_BROKER_STATEFILEDAMAGE_H
#define TESTS_BROKER_STATEFILEDAMAGE_H

#include <algorithm>
#include <cstddef>
#include <string>

#include "tests/broker/StateFileFixture.h"

/// Helpers for the tests of damaged state files.

inline const std::string longText(50, 'x');

/// A database of a dozen pages.
inline SavedState manyValues()
{
    SavedState state;
    for (int key = 0; key < 500; ++key)
        state.values["key" + std::to_string(key)] = longText;
    return state;
}

constexpr std::size_t pageSize = 4096;

class StateFileDamageTest : public StateFileFixture
{
protected:
    /// How many rows are lost, by the only line that is logged.
    static std::string outcomeIn(const LogCapture& log)
    {
        if (log.lines().size() != 1)
            return std::to_string(log.lines().size()) + " lines";
        const std::string text = log.lines()[0].text;
        return text.substr(std::min(text.size(), text.find("; ")));
    }
};

#endif
