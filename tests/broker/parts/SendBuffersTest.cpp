#include "broker/SendBuffers.h"

#include <gtest/gtest.h>

namespace
{

SendBuffers of(std::size_t subscribers, std::size_t readers)
{
    SendBuffers buffers;
    buffers.update(subscribers, readers);
    return buffers;
}

} // namespace

TEST(SendBuffersTest, aFewHaveMuchEach)
{
    for (const std::size_t count : {1U, 10U, 16U})
        EXPECT_EQ(of(count, 0).size(false), SendBuffers::largest) << count;
}

TEST(SendBuffersTest, allTogetherHoldNoMoreThanIsForAll)
{
    for (std::size_t count = 1; count <= 1024; ++count)
        for (const std::size_t readers : {std::size_t{0}, count / 100, count / 10, count / 2, count})
        {
            const SendBuffers buffers = of(count, readers);
            const std::size_t sum = readers * buffers.size(true) + (count - readers) * buffers.size(false);
            ASSERT_LE(sum, SendBuffers::forAll) << count << ' ' << readers;
        }
}

TEST(SendBuffersTest, evenManyHaveSomeEach)
{
    EXPECT_EQ(of(100000, 100000).size(true), SendBuffers::smallest);
}

TEST(SendBuffersTest, aFewReadersAmongManyHaveMuchEach)
{
    EXPECT_EQ(of(1000, 10).size(true), SendBuffers::largest);
    EXPECT_EQ(of(1000, 10).size(false), SendBuffers::smallest);
}

TEST(SendBuffersTest, theRestHasMuchAgainWhenManyHaveLeft)
{
    SendBuffers buffers = of(1000, 500);
    EXPECT_TRUE(buffers.update(10, 1));
    EXPECT_EQ(buffers.size(false), SendBuffers::largest);
    EXPECT_EQ(buffers.size(true), SendBuffers::largest);
}

TEST(SendBuffersTest, sizesDoNotChangeWithEachThatComesOrGoes)
{
    SendBuffers buffers = of(512, 256);
    EXPECT_TRUE(buffers.update(513, 257));
    for (int times = 0; times < 10; ++times)
    {
        EXPECT_FALSE(buffers.update(512, 256));
        EXPECT_FALSE(buffers.update(513, 257));
    }
    EXPECT_TRUE(buffers.update(513, 600));
    EXPECT_TRUE(buffers.update(300, 600));
}
