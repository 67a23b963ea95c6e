#include "benchmarks/micro/Allocations.h"

#include <atomic>
#include <cstddef>

namespace
{

std::atomic<uint64_t> allocations{0};

} // namespace

uint64_t Allocations::count()
{
    return allocations.load(std::memory_order_relaxed);
}

// Replacing operator new would not be enough: JsonCpp allocates its texts with malloc.

extern "C" void* __libc_malloc(std::size_t size);

extern "C" [[gnu::visibility("default")]] void* malloc(std::size_t size) noexcept
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
