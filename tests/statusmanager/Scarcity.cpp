#include "tests/statusmanager/Scarcity.h"

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <new>
#include <pthread.h>

namespace
{

// The number that may still succeed; negative: no limit.
thread_local int allocationsLeft = -1;
thread_local int threadsLeft = -1;

bool mustFail(int& left)
{
    if (left > 0)
        --left;
    else if (left == 0)
        return true;
    return false;
}

} // namespace

ScarceMemory::ScarceMemory(int allocations)
{
    allocationsLeft = allocations;
}

ScarceMemory::~ScarceMemory()
{
    allocationsLeft = -1;
}

ScarceThreads::ScarceThreads(int threads)
{
    threadsLeft = threads;
}

ScarceThreads::~ScarceThreads()
{
    threadsLeft = -1;
}

// The program's definitions take precedence over the libraries'.

void* operator new(std::size_t size)
{
    void* const memory = mustFail(allocationsLeft) ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*start)(void*),
                                                                     void* argument) noexcept
{
    if (mustFail(threadsLeft))
        return EAGAIN;
    return reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"))(thread, attributes,
                                                                                           start, argument);
}
