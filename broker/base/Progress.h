#ifndef BROKER_BASE_PROGRESS_H
#define BROKER_BASE_PROGRESS_H

#include <cstddef>
#include <cstdint>

/// Whether a connection gets on: what it holds is on its way, or only lies there.
class Progress
{
public:
    /// To be called at intervals.
    /// @param moved bytes that it has received and sent so far
    void look(uint64_t moved)
    {
        mSeenBefore = mSeen;
        mSeen = moved;
        mLooks += mLooks < enoughLooks ? 1 : 0;
    }

    /// Since the last look but one it has moved less than a quarter of what it holds.
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
