#include "common/RefCount.h"

#include "common/Mutex.h"

namespace Orvane
{

RefCount::~RefCount() = default;

void RefCount::AddRef()
{
    pthread_mutex_lock(&Mutex::mCriticalSection);
    ++mRefCount;
    pthread_mutex_unlock(&Mutex::mCriticalSection);
}

void RefCount::Release()
{
    pthread_mutex_lock(&Mutex::mCriticalSection);
    const uint32_t remaining = --mRefCount;
    pthread_mutex_unlock(&Mutex::mCriticalSection);

    if (remaining == 0)
        onRefCountZero();
}

void RefCount::onRefCountZero()
{
    delete this;
}

} // namespace Orvane
