#include "common/TrackedNew.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Orvane;

namespace
{

struct Thing : public Tracked
{
    explicit Thing(bool fails = false)
    {
        if (fails)
            throw std::runtime_error("no thing");
    }
    virtual ~Thing() = default;
    char bytes[40] = {};
};

const AllocationSite* siteAt(int line)
{
    for (const AllocationSite* site = AllocationSite::first(); site != nullptr; site = site->next())
    {
        if (site->line() == line && std::string(site->file()) == __FILE__)
            return site;
    }
    return nullptr;
}

} // namespace

TEST(TrackedNewTest, anObjectIsCountedAtItsSourceUntilItIsDeleted)
{
    std::vector<Thing*> things;
    int line = 0;
    for (int count = 0; count < 3; ++count)
    {
        line = __LINE__ + 1;
        things.push_back(OV_NEW Thing());
    }
    const AllocationSite* site = siteAt(line);
    ASSERT_NE(site, nullptr);
    EXPECT_EQ(site->allocated(), 3U);
    EXPECT_EQ(site->live(), 3U);
    for (Thing* thing : things)
        delete thing;
    EXPECT_EQ(site->allocated(), 3U);
    EXPECT_EQ(site->live(), 0U);
}

TEST(TrackedNewTest, aThrowingConstructorGivesTheStorageBack)
{
    const int line = __LINE__ + 1;
    EXPECT_THROW(OV_NEW Thing(true), std::runtime_error);
    const AllocationSite* site = siteAt(line);
    ASSERT_NE(site, nullptr);
    EXPECT_EQ(site->allocated(), 1U);
    EXPECT_EQ(site->live(), 0U);
}

TEST(TrackedNewTest, eachSiteCountsForItself)
{
    const int firstLine = __LINE__ + 1;
    const std::unique_ptr<Thing> first(OV_NEW Thing());
    const int secondLine = __LINE__ + 1;
    const std::unique_ptr<Thing> second(OV_NEW Thing());
    ASSERT_NE(siteAt(firstLine), nullptr);
    ASSERT_NE(siteAt(secondLine), nullptr);
    EXPECT_EQ(siteAt(firstLine)->live(), 1U);
    EXPECT_EQ(siteAt(secondLine)->live(), 1U);
}

TEST(TrackedNewTest, aSiteIsListedFromItsFirstAllocationOn)
{
    const int line = __LINE__ + 1;
    const auto allocate = [] { return OV_NEW Thing(); };
    EXPECT_EQ(siteAt(line), nullptr);
    delete allocate();
    EXPECT_NE(siteAt(line), nullptr);
}

TEST(TrackedNewTest, manyThreadsAtOneSiteAreCountedExactlyAndListItOnce)
{
    const int line = __LINE__ + 1;
    const auto allocate = [] { return OV_NEW Thing(); };
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back(
            [&]
            {
                for (int count = 0; count < 1000; ++count)
                    delete allocate();
            });
    for (std::thread& thread : threads)
        thread.join();
    const AllocationSite* site = siteAt(line);
    ASSERT_NE(site, nullptr);
    EXPECT_EQ(site->allocated(), 4000U);
    EXPECT_EQ(site->live(), 0U);
    int listed = 0;
    for (const AllocationSite* each = AllocationSite::first(); each != nullptr; each = each->next())
        listed += each == site ? 1 : 0;
    EXPECT_EQ(listed, 1);
}

TEST(TrackedNewTest, anObjectDeletedThroughItsBaseIsCountedAsReleased)
{
    struct Bigger : public Thing
    {
        char more[100] = {};
    };
    const int line = __LINE__ + 1;
    Thing* thing = OV_NEW Bigger();
    delete thing;
    ASSERT_NE(siteAt(line), nullptr);
    EXPECT_EQ(siteAt(line)->live(), 0U);
}

TEST(TrackedNewTest, objectsAreAlignedForEverythingThatPlainNewServes)
{
    const std::unique_ptr<Thing> tracked(OV_NEW Thing());
    const std::unique_ptr<Thing> plain(new Thing());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(tracked.get()) % alignof(std::max_align_t), 0U);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(plain.get()) % alignof(std::max_align_t), 0U);
}

TEST(TrackedNewTest, plainNewIsCountedUnderTheNamelessSite)
{
    std::unique_ptr<Thing> thing(new Thing());
    const AllocationSite* nameless = AllocationSite::first();
    while (nameless != nullptr && *nameless->file() != '\0')
        nameless = nameless->next();
    ASSERT_NE(nameless, nullptr);
    EXPECT_EQ(nameless->line(), 0);
    const unsigned live = nameless->live();
    thing.reset();
    EXPECT_EQ(nameless->live(), live - 1);
}

TEST(TrackedNewTest, deletingNullDoesNothing)
{
    Thing* thing = nullptr;
    delete thing;
    Tracked::operator delete(nullptr);
}
