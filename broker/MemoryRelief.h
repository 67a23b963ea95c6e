#ifndef BROKER_MEMORYRELIEF_H
#define BROKER_MEMORYRELIEF_H

#include <cstddef>

/// Chooses the holder that gives way when memory is short: the largest. All stalled peers count as one
/// holder: hundreds of stopped peers that hold little each must not displace a working peer.
template <class Holder>
class MemoryRelief
{
public:
    /// @param log bytes that the log of notifications can give up
    explicit MemoryRelief(std::size_t log) : mLog(log) {}

    void add(Holder& holder, std::size_t held, bool isStalled)
    {
        if (isStalled)
            mStalled += held;
        Largest& largest = isStalled ? mLargestStalled : mLargestAtWork;
        if (held > largest.held)
            largest = {&holder, held};
    }

    /// Whether the log gives way.
    bool isLog() const { return mLog != 0 && mLog >= mStalled && mLog >= mLargestAtWork.held; }

    /// The connection that gives way if the log does not; null if no connection holds anything.
    Holder* holder() const
    {
        return mStalled >= mLargestAtWork.held ? mLargestStalled.holder : mLargestAtWork.holder;
    }

private:
    struct Largest
    {
        Holder* holder = nullptr;
        std::size_t held = 0;
    };

    const std::size_t mLog;
    std::size_t mStalled = 0;
    Largest mLargestStalled;
    Largest mLargestAtWork;
};

#endif
