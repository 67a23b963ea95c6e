#ifndef C_POSTALLOWANCE_H
#define C_POSTALLOWANCE_H

#include <cstddef>
#include <mutex>
#include <utility>

#include "c/Failure.h"
#include "statusmanager/status.h"

namespace StatusC
{

/// Limits the posts of the process that have not been sent. Any thread.
class PostAllowance
{
public:
    /// A post's part of the allowance; the destructor returns it.
    class Share
    {
    public:
        Share(PostAllowance& allowance, std::size_t bytes) : mAllowance(&allowance), mBytes(bytes) {}
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
        PostAllowance* mAllowance;
        std::size_t mBytes;
    };

    /// @throws Failure(STATUS_EFULL) when too much waits already
    Share take(std::size_t bytes)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mPosts >= STATUS_POSTS_MOST || mBytes + bytes > STATUS_POSTS_BYTES)
            throw Failure{STATUS_EFULL};
        ++mPosts;
        mBytes += bytes;
        return Share(*this, bytes);
    }

private:
    void giveBack(std::size_t bytes)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        --mPosts;
        mBytes -= bytes;
    }

    std::mutex mMutex;
    std::size_t mPosts = 0;
    std::size_t mBytes = 0;
};

} // namespace StatusC

#endif
