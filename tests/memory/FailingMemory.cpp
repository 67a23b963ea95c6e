#include "tests/memory/FailingMemory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <link.h>
#include <new>
#include <sys/prctl.h>

#include "common/Logging.h"

// The malloc() that ours replaces, by its own symbol: malloc() is called before dlsym() could find it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" void* nextMalloc(std::size_t size) __asm__("__interceptor_malloc");
#else
extern "C" void* nextMalloc(std::size_t size) __asm__("__libc_malloc");
#endif

namespace
{

bool isArmed = false; // atomic builtins: malloc() is called before any initialisation
std::atomic<unsigned> counted{0};
std::atomic<bool> hasFailed{false};
unsigned failing = 0; // written only while no thread counts
FailingMemory::Extent failingExtent = FailingMemory::Extent::One;

std::atomic<std::size_t> live{0};

thread_local bool isCaller = false;
thread_local unsigned spared = 0;

bool isCountedThread()
{
    if (isCaller)
        return true;
    std::array<char, 16> name{};
    prctl(PR_GET_NAME, name.data());
    // The libraries' threads by their kernel names, and the name for threads of tests.
    constexpr std::array<const char*, 4> names{"StatusManager", "ProcessStatusMe", "StatusQuestions",
                                               "counted"};
    return std::any_of(names.begin(), names.end(),
                       [&](const char* each) { return std::strcmp(each, name.data()) == 0; });
}

// --------------------------------------------------------------------------- the malloc() calls that count

struct Range
{
    std::uintptr_t begin;
    std::uintptr_t end;
};

// The address ranges of the code whose malloc() calls count.
struct Libraries
{
    std::array<Range, 4> code{};
    std::size_t count = 0;

    Libraries() { dl_iterate_phdr(&Libraries::add, this); }

    static int add(dl_phdr_info* info, std::size_t, void* self)
    {
        constexpr std::array<const char*, 4> names{"libveskcommon.", "libstatusmanager.",
                                                   "libstatusmanager-c.", "libjsoncpp."};
        auto* libraries = static_cast<Libraries*>(self);
        if (std::none_of(names.begin(), names.end(),
                         [&](const char* name) { return std::strstr(info->dlpi_name, name) != nullptr; }))
            return 0;
        for (int i = 0; i < info->dlpi_phnum; ++i)
        {
            const ElfW(Phdr)& segment = info->dlpi_phdr[i];
            if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0)
                continue;
            const std::uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
            libraries->code.at(libraries->count++) = {begin, begin + segment.p_memsz};
        }
        return 0;
    }

    bool contain(const void* address) const
    {
        const auto at = reinterpret_cast<std::uintptr_t>(address);
        return std::any_of(code.begin(), code.begin() + count,
                           [&](const Range& range) { return range.begin <= at && at < range.end; });
    }
};

const Libraries& libraries()
{
    static const Libraries found;
    return found;
}

[[maybe_unused]] bool mallocFails(const void* caller)
{
    if (!libraries().contain(caller) || !FailingMemory::fails())
        return false;
    errno = ENOMEM;
    return true;
}

void* allocate(std::size_t size, std::size_t alignment = 0)
{
    if (FailingMemory::fails())
        return nullptr;
    void* const memory = alignment == 0
                             ? nextMalloc(size == 0 ? 1 : size)
                             : aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    if (memory != nullptr)
        live.fetch_add(1, std::memory_order_relaxed);
    return memory;
}

void* allocateOrThrow(std::size_t size, std::size_t alignment = 0)
{
    void* const memory = allocate(size, alignment);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void release(void* memory)
{
    if (memory != nullptr)
        live.fetch_sub(1, std::memory_order_relaxed);
    std::free(memory);
}

} // namespace

namespace FailingMemory
{

Shortage::Shortage(unsigned nth, Extent extent)
{
    libraries(); // found before counting begins
    failing = nth;
    failingExtent = extent;
    counted = 0;
    hasFailed = false;
    isCaller = true;
    __atomic_store_n(&isArmed, true, __ATOMIC_SEQ_CST);
}

Shortage::~Shortage()
{
    __atomic_store_n(&isArmed, false, __ATOMIC_SEQ_CST);
    isCaller = false;
}

bool Shortage::hasStruck() const
{
    return hasFailed;
}

Spared::Spared()
{
    ++spared;
}

Spared::~Spared()
{
    --spared;
}

bool fails()
{
    if (!__atomic_load_n(&isArmed, __ATOMIC_SEQ_CST) || spared != 0 || !isCountedThread())
        return false;
    const unsigned number = ++counted;
    if (number != failing && (number < failing || failingExtent == Extent::One))
        return false;
    hasFailed = true;
    return true;
}

std::size_t liveObjects()
{
    return live;
}

QuietLog::QuietLog(const char* rules)
{
    ov_log_configure(rules);
    ov_log_set_sink([](const ov_log_record*, void*) {}, nullptr);
}

QuietLog::~QuietLog()
{
    ov_log_set_sink(nullptr, nullptr);
    ov_log_configure("*=5:ffffffff");
}

} // namespace FailingMemory

// ------------------------------------------------------------------------ replaces the libraries' functions

#define REPLACES_LIBRARY [[gnu::visibility("default")]]

// Not under ThreadSanitizer: it could no longer recognise libzmq's memory, whose races it is told to ignore.
#ifndef __SANITIZE_THREAD__
extern "C" REPLACES_LIBRARY [[gnu::no_sanitize("address,undefined")]] void* malloc(std::size_t size) noexcept
{
    if (__atomic_load_n(&isArmed, __ATOMIC_SEQ_CST) && mallocFails(__builtin_return_address(0)))
        return nullptr;
    return nextMalloc(size);
}
#endif

REPLACES_LIBRARY void* operator new(std::size_t size)
{
    return allocateOrThrow(size);
}

REPLACES_LIBRARY void* operator new[](std::size_t size)
{
    return allocateOrThrow(size);
}

REPLACES_LIBRARY void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

REPLACES_LIBRARY void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

REPLACES_LIBRARY void* operator new(std::size_t size, std::align_val_t alignment)
{
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}

REPLACES_LIBRARY void operator delete(void* memory) noexcept
{
    release(memory);
}

REPLACES_LIBRARY void operator delete[](void* memory) noexcept
{
    release(memory);
}

REPLACES_LIBRARY void operator delete(void* memory, std::size_t) noexcept
{
    release(memory);
}

REPLACES_LIBRARY void operator delete[](void* memory, std::size_t) noexcept
{
    release(memory);
}

REPLACES_LIBRARY void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    release(memory);
}

REPLACES_LIBRARY void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    release(memory);
}

REPLACES_LIBRARY void operator delete(void* memory, std::align_val_t) noexcept
{
    release(memory);
}

REPLACES_LIBRARY void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    release(memory);
}
