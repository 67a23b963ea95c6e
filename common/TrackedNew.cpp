#include "common/TrackedNew.h"

#include <new>

namespace Orvane
{

namespace
{

std::atomic<const AllocationSite*> firstSite{nullptr};

AllocationSite namelessSite("", 0);

// Precedes every tracked object, so that an ordinary delete finds the site. Its alignment keeps the object
// aligned as plain new would.
struct alignas(std::max_align_t) Header
{
    AllocationSite* site;
};

Header* headerOf(void* object)
{
    return static_cast<Header*>(object) - 1;
}

} // namespace

const AllocationSite* AllocationSite::first()
{
    return firstSite.load(std::memory_order_acquire);
}

void AllocationSite::countAllocation()
{
    mAllocated.fetch_add(1, std::memory_order_relaxed);
    if (mListed.load(std::memory_order_relaxed) || mListed.exchange(true, std::memory_order_relaxed))
        return;
    mNext = firstSite.load(std::memory_order_relaxed);
    while (
        !firstSite.compare_exchange_weak(mNext, this, std::memory_order_release, std::memory_order_relaxed))
    {
    }
}

void* Tracked::operator new(std::size_t size)
{
    return operator new(size, namelessSite);
}

void* Tracked::operator new(std::size_t size, AllocationSite& site)
{
    auto* header = static_cast<Header*>(::operator new(sizeof(Header) + size));
    header->site = &site;
    site.countAllocation();
    return header + 1;
}

void Tracked::operator delete(void* object) noexcept
{
    if (object == nullptr)
        return;
    Header* header = headerOf(object);
    header->site->countRelease();
    ::operator delete(header);
}

void Tracked::operator delete(void* object, AllocationSite&) noexcept
{
    operator delete(object);
}

} // namespace Orvane
