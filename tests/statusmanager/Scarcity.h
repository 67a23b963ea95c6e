#ifndef TESTS_STATUSMANAGER_SCARCITY_H
#define TESTS_STATUSMANAGER_SCARCITY_H

/// In a program that links it: while it lives, the calling thread's allocations fail behind the first so
/// many.
class ScarceMemory
{
public:
    explicit ScarceMemory(int allocations);
    ~ScarceMemory();

    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;
};

/// The same for the threads that the calling thread starts.
class ScarceThreads
{
public:
    explicit ScarceThreads(int threads);
    ~ScarceThreads();

    ScarceThreads(const ScarceThreads&) = delete;
    ScarceThreads& operator=(const ScarceThreads&) = delete;
};

#endif
