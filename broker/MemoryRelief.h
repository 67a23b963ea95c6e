#ifndef BROKER_MEMORYRELIEF_H
#define BROKER_MEMORYRELIEF_H

#include <cstddef>

/// Chooses the holder that gives way where memory is short: the holder of most. All peers that do not get on
/// count as one: hundreds of stopped peers that hold little each must not make a working peer give way.
template <class Holder>
class MemoryRelief
{
public:
    /// @param log what can be taken from the log of notifications
    explicit MemoryRelief(std::size_t log) : mLog(log) {}

    void add(Holder& holder, std::size_t held, bool isStalled)
    {
        if (isStalled)
            mStalled += held;
        Largest& largest = isStalled ? mLargestStalled : mLargestAtWork;
        if (held > largest.held)
            largest = {&holder, held};
    }

    /// The log gives way.
    bool isLog() const { return mLog != 0 && mLog >= mStalled && mLog >= mLargestAtWork.held; }

    /// The connection that gives way otherwise; none if no connection holds anything.
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
