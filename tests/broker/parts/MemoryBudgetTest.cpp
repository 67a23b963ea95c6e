#include "broker/MemoryBudget.h"

#include <gtest/gtest.h>

TEST(MemoryBudgetTest, addsUpWhatItsHoldersHold)
{
    const std::size_t limit = 100;
    MemoryBudget budget(limit);
    std::size_t one = 0;
    std::size_t other = 0;
    budget.update(one, 60);
    budget.update(other, 30);
    EXPECT_EQ(budget.held(), 90U);
    budget.update(one, 20);
    EXPECT_EQ(budget.held(), 50U);
    EXPECT_EQ(one, 20U);
    budget.update(one, 0);
    budget.update(other, 0);
    EXPECT_EQ(budget.held(), 0U);
}

TEST(MemoryBudgetTest, isExceededBeyondItsLimitWhichMayChange)
{
    std::size_t limit = 100;
    MemoryBudget budget(limit);
    std::size_t holder = 0;
    budget.update(holder, 100);
    EXPECT_FALSE(budget.isExceeded());
    budget.update(holder, 101);
    EXPECT_TRUE(budget.isExceeded());
    limit = 101;
    EXPECT_FALSE(budget.isExceeded());
}

TEST(MemoryBudgetTest, allowsWhatFillsItAndNoMore)
{
    const std::size_t limit = 100;
    MemoryBudget budget(limit);
    std::size_t holder = 0;
    budget.update(holder, 60);
    EXPECT_TRUE(budget.allows(40));
    EXPECT_FALSE(budget.allows(41));
}
