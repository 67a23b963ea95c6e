#ifndef BROKER_MEMORYBUDGET_H
#define BROKER_MEMORYBUDGET_H

#include <cstddef>

/// Counts the memory of all connections together: unfinished messages, requests, replies, and the
/// notifications on their way.
class MemoryBudget
{
public:
    /// @param limit may change; must outlive this object
    explicit MemoryBudget(const std::size_t& limit) : mLimit(limit) {}

    /// Replaces the bytes counted for a holder.
    void update(std::size_t& counted, std::size_t now)
    {
        mHeld = mHeld - counted + now;
        counted = now;
    }

    /// Whether this many more bytes may be held.
    bool allows(std::size_t more) const { return mHeld + more <= mLimit; }
    bool isExceeded() const { return mHeld > mLimit; }
    /// Whether even little more would be too much. Until then, the broker may read what soon takes no memory
    /// any more.
    bool isFull() const { return mHeld > mLimit + mLimit / 16; }
    /// Whether more than half is used.
    bool isTight() const { return mHeld > mLimit / 2; }
    std::size_t held() const { return mHeld; }

private:
    const std::size_t& mLimit;
    std::size_t mHeld = 0;
};

#endif
