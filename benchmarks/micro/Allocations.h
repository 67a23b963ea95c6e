#ifndef BENCHMARKS_MICRO_ALLOCATIONS_H
#define BENCHMARKS_MICRO_ALLOCATIONS_H

#include <cstdint>

/// Counts the allocations of the program it is linked into, and of all its libraries.
namespace Allocations
{

/// The number of allocations by all threads since the start.
uint64_t count();

} // namespace Allocations

#endif
