#ifndef BROKER_BASE_PROGRESS_H
#define BROKER_BASE_PROGRESS_H

#include <cstddef>
#include <cstdint>

/// Judges whether a connection makes progress, or its bytes only lie there.
class Progress
{
public:
    /// Call this at intervals.
    /// @param moved bytes that it has received and sent so far
    void look(uint64_t moved)
    {
        mSeenBefore = mSeen;
        mSeen = moved;
        mLooks += mLooks < enoughLooks ? 1 : 0;
    }

    /// Whether it has moved less than a quarter of what it holds, since the last look but one.
    bool isStalled(uint64_t moved, std::size_t held) const
    {
        constexpr unsigned quarter = 4;
        return mLooks == enoughLooks && (moved - mSeenBefore) * quarter < held;
    }

private:
    static constexpr unsigned enoughLooks = 2;

    uint64_t mSeen = 0;
    uint64_t mSeenBefore = 0;
    unsigned mLooks = 0;
};

#endif
