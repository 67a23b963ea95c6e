#include "statusmanager/SubscriptionIndex.h"

#include <gtest/gtest.h>
#include <string>

#include "tests/memory/FailingMemory.h"

using FailingMemory::failEach;
using FailingMemory::Failure;

namespace
{

std::string name(unsigned number)
{
    return "a key of a length that takes memory, " + std::to_string(number);
}

StatusKeys names(unsigned count)
{
    StatusKeys all;
    for (unsigned number = 0; number < count; ++number)
        all.push_back(name(number));
    return all;
}

// Whether the list contains exactly the keys from the first on.
bool areFound(SubscriptionIndex& index, const StatusKeys& list, const StatusKeys& all, unsigned first)
{
    const SubscriptionIndex::Lookup lookup = index.in(list);
    for (unsigned number = 0; number < all.size(); ++number)
    {
        if (lookup.contains(all[number]) != (number >= first))
            return false;
    }
    return true;
}

} // namespace

TEST(SubscriptionIndexMemory, aLongListIsLookedUpAlsoWhereThereIsNoMemoryForItsIndex)
{
    const StatusKeys all = names(30);
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            SubscriptionIndex index;
            StatusKeys list = all;
            bool areAllFound = false;
            const bool hasStruck = failure.during([&] { areAllFound = areFound(index, list, all, 0); });
            EXPECT_TRUE(areAllFound);
            for (unsigned number = 0; number < 10; ++number) // some may be in the index already
                index.erase(list, all[number]);
            EXPECT_TRUE(areFound(index, list, all, 10));
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}
