#ifndef BROKER_SENDBUFFERS_H
#define BROKER_SENDBUFFERS_H

#include <algorithm>
#include <cstddef>

/// How much the kernel may hold for each subscriber: much if there are few, so that the broker wakes seldom
/// for each, and little if there are many.
///
/// Half of the total is for all subscribers. The other half is for readers: subscribers that went on reading
/// after their buffer had been full. More would not help the others: they receive little, or have stopped.
class SendBuffers
{
public:
    /// The kernel doubles the requested size, and holds that much.
    static constexpr std::size_t factor = 2;
    static constexpr std::size_t forAll = std::size_t{16} * 1024 * 1024 / factor;
    static constexpr std::size_t largest = std::size_t{256} * 1024;
    static constexpr std::size_t smallest = std::size_t{4} * 1024;

    /// Takes the present numbers of connections. Returns true if sizes have changed.
    bool update(std::size_t subscribers, std::size_t readers)
    {
        const Steps before = mSteps;
        mSteps = {step(before.subscribers, subscribers), step(before.readers, readers)};
        return mSteps.subscribers != before.subscribers || mSteps.readers != before.readers;
    }

    /// The size to request for one subscriber.
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

    // The number, rounded up to a power of two. It shrinks only at three eighths of the step. So sizes do not
    // change with each connection that comes or goes.
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
