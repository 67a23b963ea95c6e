#ifndef VESK_COMMON_MUTEX_H
#define VESK_COMMON_MUTEX_H

#include <pthread.h>

#include "common/Export.h"

namespace Orvane
{

/// A mutual-exclusion lock, taken with AutoLock.
class OV_EXPORT Mutex
{
public:
    /// @param recursive true: the thread that holds the lock may take it again, and must release it as often.
    ///                  false: taking it again would deadlock.
    /// @throws std::system_error when the system has no room for another mutex.
    explicit Mutex(bool recursive);
    ~Mutex();

    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Blocks until the lock is free and takes it. Any thread.
    void lock();

    /// Releases the lock. Only the thread that holds it may call this.
    void unlock();

    /// The one lock under which every RefCount in the process is changed. It is a plain POSIX mutex that
    /// needs no construction, so that counts work in static initialisers and until the process ends.
    static pthread_mutex_t mCriticalSection;

private:
    pthread_mutex_t mMutex;
};

/// Holds a Mutex for the length of a scope.
class AutoLock
{
public:
    /// Takes the lock; the destructor releases it.
    explicit AutoLock(Mutex& mutex) : mMutex(mutex) { mMutex.lock(); }
    ~AutoLock() { mMutex.unlock(); }

    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;

private:
    Mutex& mMutex;
};

} // namespace Orvane

#endif
