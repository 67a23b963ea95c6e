#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// What each target defines: one input, read by the parser under test.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace Fuzz
{

inline std::string textOf(const uint8_t* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};
}

/// A finding, if that does not hold.
inline void require(bool holds, const char* what)
{
    if (holds)
        return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

} // namespace Fuzz

#endif
