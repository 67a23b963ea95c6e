#ifndef TESTS_STATUSMANAGER_SCARCITY_H
#define TESTS_STATUSMANAGER_SCARCITY_H

/// While it lives, only this many allocations of the calling thread succeed.
class ScarceMemory
{
public:
    explicit ScarceMemory(int allocations);
    ~ScarceMemory();

    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;
};

/// While it lives, the calling thread can start only this many threads.
class ScarceThreads
{
public:
    explicit ScarceThreads(int threads);
    ~ScarceThreads();

    ScarceThreads(const ScarceThreads&) = delete;
    ScarceThreads& operator=(const ScarceThreads&) = delete;
};

#endif
