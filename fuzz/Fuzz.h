#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// Each target defines this: the parser under test reads one input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace Fuzz
{

inline std::string textOf(const uint8_t* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};
}

/// Reports a finding if `holds` is false.
inline void require(bool holds, const char* what)
{
    if (holds)
        return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

/// Checks that content survives writing and reading again. The first writing replaces bytes that are not
/// UTF-8, which may change the order of names or merge two names. From the second writing on, nothing may
/// change.
/// @param read  makes content from a text, or returns false
/// @param write makes a text from content
template <typename Read, typename Write>
void requireRoundTrip(Read read, Write write, const std::string& text)
{
    const auto first = read(text);
    if (!first)
        return;
    const auto second = read(write(*first));
    require(static_cast<bool>(second), "what was written is read");
    const std::string settled = write(*second);
    const auto third = read(settled);
    require(third && write(*third) == settled, "what was read is written again");
}

} // namespace Fuzz

#endif
