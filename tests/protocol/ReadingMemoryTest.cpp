// The memory that the broker needs to read one message, as the kernel counts it: reserved memory that is
// never used does not count.

#include <gtest/gtest.h>
#include <malloc.h>
#include <string>

#include "protocol/BrokerDocuments.h"
#include "tests/support/ProcessMemory.h"

namespace
{

using BrokerProtocol::Command;

constexpr std::size_t mebi = std::size_t{1024} * 1024;

// The peak of memory during `read`, beyond the memory in use before.
template <class Read>
std::size_t peakOf(Read read)
{
    malloc_trim(0); // returns freed memory to the kernel
    resetPeakMemory("self");
    const std::size_t before = memoryOf("self", "VmRSS");
    read();
    return memoryOf("self", "VmHWM") - before;
}

// About 1 MiB of values. The last value may need the slower reader.
std::string postOfManyValues(int count, const std::string& last)
{
    constexpr int firstName = 10000;
    const std::string filler(90, 'x');
    std::string members;
    for (int number = 0; number < count; ++number)
        members += (number == 0 ? "\"" : ",\"") + std::to_string(firstName + number) + "\":\"" + filler + '"';
    return R"({"postStatus":{)" + members + R"(,"last":")" + last + "\"}}";
}

std::string listOfEmptyNames(int count)
{
    std::string names;
    for (int number = 0; number < count; ++number)
        names += number == 0 ? R"("")" : R"(,"")";
    return R"({"resetStatus":[)" + names + "]}";
}

constexpr int manyValues = BrokerProtocol::mostMembers - 1;

// Reads the post. Returns the memory needed besides the message.
std::size_t peakOfReading(const std::string& post)
{
    EXPECT_GT(post.size(), mebi * 95 / 100);
    Command command;
    const std::size_t peak = peakOf([&] { EXPECT_TRUE(command.readPost(post)); });
    EXPECT_EQ(command.members.size(), static_cast<std::size_t>(manyValues) + 1);
    return isMemoryTelling ? peak : 0;
}

} // namespace

TEST(ReadingMemory, ofAsManyValuesAsMayBeIsLessThanTheMessage)
{
    const std::string post = postOfManyValues(manyValues, "1");
    EXPECT_LE(peakOfReading(post), post.size());
}

// All texts are copied in this case.
TEST(ReadingMemory, ofOneThatHasToBeUnescapedIsAtMostTwiceItsSize)
{
    const std::string post = postOfManyValues(manyValues, R"(\t)");
    EXPECT_LE(peakOfReading(post), 2 * post.size());
}

// Each takes three bytes of the message, and sixteen bytes in memory.
TEST(ReadingMemory, ofAsManyEmptyNamesAsMayBeIsAtMostHalfAMegabyte)
{
    constexpr int count = BrokerProtocol::mostMembers;
    const std::string list = listOfEmptyNames(count);
    Command command;
    const std::size_t peak = peakOf([&] { EXPECT_TRUE(command.readPost(list)); });
    EXPECT_EQ(command.texts.size(), static_cast<std::size_t>(count));
    EXPECT_TRUE(!isMemoryTelling || peak <= mebi / 2) << peak;
}
