#include "statusctl/device/Deadline.h"

#include <utility>

Deadline::Deadline(std::chrono::milliseconds timeout, std::function<void()> expired)
    : mExpired(std::move(expired)),
      mThread([this, end = std::chrono::steady_clock::now() + timeout] { wait(end); })
{
}

Deadline::~Deadline()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mOver = true;
    }
    mChanged.notify_all();
    mThread.join();
}

void Deadline::wait(std::chrono::steady_clock::time_point end)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (mChanged.wait_until(lock, end, [this] { return mOver; }))
        return;
    lock.unlock();
    mExpired();
}
