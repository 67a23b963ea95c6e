#ifndef VESK_COMMON_TRACKEDNEW_H
#define VESK_COMMON_TRACKEDNEW_H

#include <atomic>
#include <cstddef>

#include "common/Export.h"

/// @file
/// Allocation that records the source line it was requested from.

namespace Orvane
{

/// One place in the source from which tracked objects are allocated, with its running totals. OV_NEW makes
/// the site. It joins a process-wide list at its first allocation and stays there, so code that uses OV_NEW
/// must not be unloaded. Any thread may call all members.
class OV_EXPORT AllocationSite
{
public:
    /// Made by OV_NEW. The file's name is not copied.
    constexpr AllocationSite(const char* file, int line) : mFile(file), mLine(line) {}

    AllocationSite(const AllocationSite&) = delete;
    AllocationSite& operator=(const AllocationSite&) = delete;

    /// The source file as the compiler was given it.
    const char* file() const { return mFile; }
    /// The line in that file.
    int line() const { return mLine; }

    /// Objects allocated here since the start of the process (wraps).
    unsigned allocated() const { return mAllocated.load(std::memory_order_relaxed); }
    /// Objects allocated here that exist now.
    unsigned live() const
    {
        return mAllocated.load(std::memory_order_relaxed) - mReleased.load(std::memory_order_relaxed);
    }

    /// Walks all sites that have allocated: `for (auto* s = AllocationSite::first(); s; s = s->next())`.
    static const AllocationSite* first();
    /// The next site in the list; null after the last.
    const AllocationSite* next() const { return mNext; }

private:
    friend class Tracked;
    void countAllocation();
    void countRelease() { mReleased.fetch_add(1, std::memory_order_relaxed); }

    const char* mFile;
    int mLine;
    std::atomic<unsigned> mAllocated{0};
    std::atomic<unsigned> mReleased{0};
    std::atomic<bool> mListed{false};
    const AllocationSite* mNext = nullptr;
};

/// Base of classes whose allocations are counted per source line. `OV_NEW Thing(...)` counts the object at
/// its site, and an ordinary `delete` counts its release there. So AllocationSite::live() finds leaks. Plain
/// `new` works too; its objects are counted at one nameless site.
class OV_EXPORT Tracked
{
public:
    /// Plain `new`: counted at the nameless site.
    static void* operator new(std::size_t size);
    /// `OV_NEW`: counted at its own site.
    static void* operator new(std::size_t size, AllocationSite& site);
    /// Frees an object of either form, and counts the release at its site.
    static void operator delete(void* object) noexcept;
    /// Called by the compiler when a constructor throws inside `OV_NEW`.
    static void operator delete(void* object, AllocationSite& site) noexcept;

protected:
    Tracked() = default;
    ~Tracked() = default;
};

} // namespace Orvane

/// This place in the source, as an AllocationSite of its own.
#define OV_SITE                                                                                              \
    (*[]() -> ::Orvane::AllocationSite*                                                                      \
     {                                                                                                       \
         static ::Orvane::AllocationSite site(__FILE__, __LINE__);                                           \
         return &site;                                                                                       \
     }())

/// Allocates an object of a Tracked class and records the source file and line: `OV_NEW Thing(arguments)`.
#define OV_NEW new (OV_SITE)

#endif
