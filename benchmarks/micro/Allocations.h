#ifndef BENCHMARKS_MICRO_ALLOCATIONS_H
#define BENCHMARKS_MICRO_ALLOCATIONS_H

#include <cstdint>

/// Linked into a program, this counts what the program and all its libraries allocate.
namespace Allocations
{

/// By all threads, since the start.
uint64_t count();

} // namespace Allocations

#endif
