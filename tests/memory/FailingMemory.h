#ifndef TESTS_MEMORY_FAILINGMEMORY_H
#define TESTS_MEMORY_FAILINGMEMORY_H

#include <cstddef>
#include <gtest/gtest.h>
#include <new>
#include <string>

/// Takes the place of a program's memory: lets an allocation fail on purpose, of those that this project is
/// answerable for. Those are its threads' allocations by operator new, and by malloc() from its own libraries
/// and from JsonCpp. Allocations of libzmq never fail: libzmq aborts then.
namespace FailingMemory
{

enum class Extent
{
    One,   ///< one allocation fails, the next succeeds again
    Onward ///< all fail from there on
};

/// While it lives, allocations are counted, and the nth fails. Counted are those of the thread that made
/// this, of the threads of the managers, and of event threads called "counted". One at a time.
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

/// While it lives, nothing that its thread takes is counted or fails.
class Spared
{
public:
    Spared();
    ~Spared();

    Spared(const Spared&) = delete;
    Spared& operator=(const Spared&) = delete;
};

/// While it lives, what is logged is formatted and thrown away.
class QuietLog
{
public:
    explicit QuietLog(const char* rules = "*=5:ffffffff");
    ~QuietLog();

    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;
};

/// Counts one allocation of the calling thread; true if it must fail.
bool fails();

/// How many objects exist that operator new has made, on any thread.
std::size_t liveObjects();

/// Whether std::bad_alloc leaves the call.
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

/// A shortage to come.
struct Failure
{
    unsigned nth;
    Extent extent;

    /// Makes the call, and lets memory run out meanwhile. Whether it has, so far.
    template <class Call>
    bool during(Call call) const
    {
        const Shortage shortage(nth, extent);
        call();
        return shortage.hasStruck();
    }
};

/// Calls `attempt` with the first, the second, the third... allocation failing, until one is through without
/// having come to the one that fails; then the same with all failing from there on. `attempt` takes a
/// Failure, and returns what its during() has. Stops where a test fails.
/// Returns how many have struck: none where nothing needs memory.
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

} // namespace FailingMemory

#endif
