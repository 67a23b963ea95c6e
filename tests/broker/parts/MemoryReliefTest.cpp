// Which holder is chosen to give way when memory is short, with numbers as arguments.

#include "broker/MemoryRelief.h"
#include "broker/base/Progress.h"

#include <gtest/gtest.h>

namespace
{

struct Holder
{
};

using Relief = MemoryRelief<Holder>;

class MemoryReliefTest : public testing::Test
{
protected:
    Holder one;
    Holder other;
};

} // namespace

TEST_F(MemoryReliefTest, whoHoldsMostGivesWay)
{
    Relief relief(0);
    EXPECT_EQ(relief.holder(), nullptr);
    relief.add(one, 10, false);
    relief.add(other, 11, false);
    EXPECT_EQ(relief.holder(), &other);
    EXPECT_FALSE(relief.isLog());
}

TEST_F(MemoryReliefTest, theLogGivesWayWhereItHoldsMost)
{
    Relief relief(10);
    EXPECT_TRUE(relief.isLog());
    relief.add(one, 10, false);
    EXPECT_TRUE(relief.isLog());
    relief.add(one, 11, false);
    EXPECT_FALSE(relief.isLog());
}

TEST_F(MemoryReliefTest, thoseThatDoNotGetOnCountAsOneAndTheLargestOfThemGivesWay)
{
    Holder third;
    Relief relief(15);
    relief.add(one, 15, false);
    relief.add(other, 9, true);
    EXPECT_EQ(relief.holder(), &one);
    relief.add(third, 10, true);
    EXPECT_FALSE(relief.isLog());
    EXPECT_EQ(relief.holder(), &third);
}

TEST_F(MemoryReliefTest, oneThatIsAtWorkGivesWayWhereItHoldsMoreThanTheyDo)
{
    Relief relief(0);
    relief.add(other, 9, true);
    relief.add(one, 10, false);
    EXPECT_EQ(relief.holder(), &one);
}

TEST(ProgressTest, isNotStalledBeforeItHasBeenLookedAtTwice)
{
    Progress progress;
    EXPECT_FALSE(progress.isStalled(0, 100));
    progress.look(0);
    EXPECT_FALSE(progress.isStalled(0, 100));
    progress.look(0);
    EXPECT_TRUE(progress.isStalled(0, 100));
}

TEST(ProgressTest, isStalledWhereItMovesLittleOfWhatItHolds)
{
    Progress progress;
    progress.look(1000);
    progress.look(1010);
    EXPECT_TRUE(progress.isStalled(1024, 100));
    EXPECT_FALSE(progress.isStalled(1025, 100));
}

TEST(ProgressTest, whatItMovedLongAgoDoesNotCount)
{
    Progress progress;
    progress.look(0);
    progress.look(1000);
    EXPECT_FALSE(progress.isStalled(1000, 100));
    progress.look(1000);
    EXPECT_TRUE(progress.isStalled(1000, 100));
}

TEST(ProgressTest, oneThatHoldsNothingIsNotStalled)
{
    Progress progress;
    progress.look(0);
    progress.look(0);
    EXPECT_FALSE(progress.isStalled(0, 0));
}
