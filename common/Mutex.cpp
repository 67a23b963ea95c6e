#include "common/Mutex.h"

#include <system_error>

namespace Orvane
{

pthread_mutex_t Mutex::mCriticalSection = PTHREAD_MUTEX_INITIALIZER;

Mutex::Mutex(bool recursive)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    const int error = pthread_mutex_init(&mMutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "pthread_mutex_init");
}

Mutex::~Mutex()
{
    pthread_mutex_destroy(&mMutex);
}

void Mutex::lock()
{
    pthread_mutex_lock(&mMutex);
}

void Mutex::unlock()
{
    pthread_mutex_unlock(&mMutex);
}

} // namespace Orvane
