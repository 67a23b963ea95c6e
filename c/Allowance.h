#ifndef C_ALLOWANCE_H
#define C_ALLOWANCE_H

#include <cstddef>
#include <mutex>
#include <utility>

#include "c/Failure.h"
#include "statusmanager/status.h"

namespace StatusC
{

/// Limits the calls of the process that wait in the library; see STATUS_PENDING_MOST. Any thread.
class Allowance
{
public:
    /// A call's part of the allowance; the destructor returns it.
    class Share
    {
    public:
        Share(Allowance& allowance, std::size_t bytes) : mAllowance(&allowance), mBytes(bytes) {}
        Share(Share&& other) noexcept
            : mAllowance(std::exchange(other.mAllowance, nullptr)), mBytes(other.mBytes)
        {
        }
        Share& operator=(Share&&) = delete;
        ~Share()
        {
            if (mAllowance != nullptr)
                mAllowance->giveBack(mBytes);
        }

    private:
        Allowance* mAllowance;
        std::size_t mBytes;
    };

    /// @throws Failure(STATUS_EFULL) when too much waits already
    Share take(std::size_t bytes)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mCalls >= STATUS_PENDING_MOST || mBytes + bytes > STATUS_PENDING_BYTES)
            throw Failure{STATUS_EFULL};
        ++mCalls;
        mBytes += bytes;
        return Share(*this, bytes);
    }

private:
    void giveBack(std::size_t bytes)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        --mCalls;
        mBytes -= bytes;
    }

    std::mutex mMutex;
    std::size_t mCalls = 0;
    std::size_t mBytes = 0;
};

} // namespace StatusC

#endif
