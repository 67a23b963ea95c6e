#ifndef TESTS_MEMORY_FAILINGMEMORY_H
#define TESTS_MEMORY_FAILINGMEMORY_H

#include <cstddef>
#include <gtest/gtest.h>
#include <new>
#include <string>

/// Replaces a program's memory allocation, and makes allocations fail on purpose. Only allocations that this
/// project is responsible for can fail: those by operator new, and by malloc() from its own libraries and
/// from JsonCpp. Allocations of libzmq never fail, because libzmq would abort.
namespace FailingMemory
{

enum class Extent
{
    One,   ///< one allocation fails, the next succeeds
    Onward ///< this allocation and all later ones fail
};

/// While it lives, it counts allocations and lets the nth fail. It counts the thread that created it, the
/// managers' threads, and event threads called "counted". One at a time.
class Shortage
{
public:
    Shortage(unsigned nth, Extent extent);
    ~Shortage();

    Shortage(const Shortage&) = delete;
    Shortage& operator=(const Shortage&) = delete;

    /// Whether an allocation has failed.
    bool hasStruck() const;
};

/// While it lives, allocations of its thread are neither counted nor failed.
class Spared
{
public:
    Spared();
    ~Spared();

    Spared(const Spared&) = delete;
    Spared& operator=(const Spared&) = delete;
};

/// While it lives, log messages are formatted and discarded.
class QuietLog
{
public:
    explicit QuietLog(const char* rules = "*=5:ffffffff");
    ~QuietLog();

    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;
};

/// Counts an allocation of the calling thread. Returns true if it must fail.
bool fails();

/// The number of objects that exist from operator new, on all threads.
std::size_t liveObjects();

/// Whether the call throws std::bad_alloc.
template <class Call>
bool runsOut(Call call)
{
    try
    {
        call();
        return false;
    }
    catch (const std::bad_alloc&)
    {
        return true;
    }
}

/// Describes a shortage.
struct Failure
{
    unsigned nth;
    Extent extent;

    /// Makes the call during the shortage. Returns whether an allocation has failed so far.
    template <class Call>
    bool during(Call call) const
    {
        const Shortage shortage(nth, extent);
        call();
        return shortage.hasStruck();
    }
};

/// Calls `attempt` with the first allocation failing, then the second, and so on, until an attempt needs
/// fewer allocations. Then repeats this with all later allocations failing, too. `attempt` takes a Failure,
/// and returns the result of its during(). Stops when a test fails.
/// Returns the number of failures: 0 if nothing allocates.
template <class Attempt>
unsigned failEach(Attempt attempt)
{
    unsigned struck = 0;
    for (const Extent extent : {Extent::One, Extent::Onward})
    {
        for (unsigned nth = 1;; ++nth, ++struck)
        {
            SCOPED_TRACE("allocation " + std::to_string(nth) +
                         (extent == Extent::One ? " fails" : " and all later ones fail"));
            const bool hasStruck = attempt(Failure{nth, extent});
            if (testing::Test::HasFailure())
                return struck;
            if (!hasStruck)
                break;
        }
    }
    return struck;
}

/// Like failEach(). Each attempt must free all objects that it makes.
template <class Attempt>
unsigned failEachCleanly(Attempt attempt)
{
    return failEach(
        [&](const Failure& failure)
        {
            const std::size_t before = liveObjects();
            const bool hasStruck = attempt(failure);
            EXPECT_EQ(liveObjects(), before) << "something was left behind";
            return hasStruck;
        });
}

/// Like failEachCleanly(), with a new World for each attempt.
template <class World, class Attempt>
unsigned failEachIn(Attempt attempt)
{
    return failEachCleanly(
        [&](const Failure& failure)
        {
            World world;
            return attempt(world, failure);
        });
}

} // namespace FailingMemory

#endif
