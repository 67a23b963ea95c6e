#ifndef TESTS_STATUSMANAGER_SCARCITY_H
#define TESTS_STATUSMANAGER_SCARCITY_H

/// While it lives, only so many allocations of the calling thread succeed, and the next ones fail.
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
