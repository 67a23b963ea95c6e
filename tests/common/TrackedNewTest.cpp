#include "common/TrackedNew.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
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

TEST(TrackedNewTest, plainNewWorksToo)
{
    const Thing* thing = new Thing();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(thing) % alignof(std::max_align_t), 0U);
    delete thing;
}

TEST(TrackedNewTest, deletingNullDoesNothing)
{
    Thing* thing = nullptr;
    delete thing;
    Tracked::operator delete(nullptr);
}
