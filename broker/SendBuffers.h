#ifndef BROKER_SENDBUFFERS_H
#define BROKER_SENDBUFFERS_H

#include <algorithm>
#include <cstddef>

/// How much the kernel may hold for each subscriber: much for a few, so that each is woken seldom, and little
/// for many.
///
/// One half of it is for all. The other is for readers: those that went on taking after they had been full.
/// For the others more would be of no use: they want little, or have stopped.
class SendBuffers
{
public:
    /// The kernel doubles what is asked for, and holds that.
    static constexpr std::size_t factor = 2;
    static constexpr std::size_t forAll = std::size_t{16} * 1024 * 1024 / factor;
    static constexpr std::size_t largest = std::size_t{256} * 1024;
    static constexpr std::size_t smallest = std::size_t{4} * 1024;

    /// Takes the present numbers of connections. True if sizes have changed.
    bool update(std::size_t subscribers, std::size_t readers)
    {
        const Steps before = mSteps;
        mSteps = {step(before.subscribers, subscribers), step(before.readers, readers)};
        return mSteps.subscribers != before.subscribers || mSteps.readers != before.readers;
    }

    /// To be asked for.
    std::size_t size(bool isReader) const
    {
        const std::size_t extra = isReader ? forAll / 2 / mSteps.readers : 0;
        return std::clamp(forAll / 2 / mSteps.subscribers + extra, smallest, largest);
    }

private:
    struct Steps
    {
        std::size_t subscribers = 1;
        std::size_t readers = 1;
    };

    // The number, rounded up to a power of two. It is rounded down again a little later, so that sizes do not
    // change with each one that comes or goes.
    static std::size_t step(std::size_t before, std::size_t count)
    {
        while (before < count)
            before *= 2;
        while (before > 1 && count <= before * 3 / 8)
            before /= 2;
        return before;
    }

    Steps mSteps;
};

#endif
