// The time that the broker needs to read one message, as a ratio of two times: a post of ten times the size
// takes about ten times as long.

#include <algorithm>
#include <chrono>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

#include "protocol/BrokerDocuments.h"

namespace
{

using BrokerProtocol::Command;
using Duration = std::chrono::nanoseconds;

constexpr std::size_t shortSize = 100'000;
constexpr std::size_t longSize = 10 * shortSize;

// In proportion is 10, quadratic is 100. The rest is for caches, which the long post does not fit in.
constexpr int mostFactor = 25;

std::string repeated(const std::string& piece, std::size_t size)
{
    std::string text;
    while (text.size() < size)
        text += piece;
    return text;
}

std::string postOf(const std::string& members)
{
    return R"({"postStatus":{)" + members + "}}";
}

std::string postOfOneValue(const std::string& piece, std::size_t size)
{
    return postOf(R"("k":")" + repeated(piece, size) + '"');
}

// The long post has nearly as many members as a post may have. Their names rise, or fall: then the broker
// sorts them.
std::string postOfManyValues(const std::string& piece, std::size_t size, bool areNamesRising = true)
{
    constexpr std::size_t valueSize = 90;
    constexpr std::size_t middleName = 500'000; // all names have six digits
    const std::string end = "\":\"" + repeated(piece, valueSize) + '"';
    std::string members;
    for (std::size_t number = 0; members.size() < size; ++number)
    {
        members += number == 0 ? "\"" : ",\"";
        members += std::to_string(areNamesRising ? middleName + number : middleName - number) + end;
    }
    return postOf(members);
}

// The time of the processor that this thread has used. It does not count other load.
Duration timeUsed()
{
    timespec time{};
    EXPECT_EQ(clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time), 0);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

Duration timeOfReading(Command& command, const std::string& post)
{
    const Duration begin = timeUsed();
    EXPECT_TRUE(command.readPost(post));
    return timeUsed() - begin;
}

// The fastest of several runs: other load also empties the caches. Both posts take turns.
void expectTimeInProportion(const std::string& shortPost, const std::string& longPost)
{
    constexpr int runs = 10;
    Command command;
    Duration shortTime = Duration::max();
    Duration longTime = Duration::max();
    for (int run = 0; run < runs; ++run)
    {
        shortTime = std::min(shortTime, timeOfReading(command, shortPost));
        longTime = std::min(longTime, timeOfReading(command, longPost));
    }
    EXPECT_LE(longTime, mostFactor * shortTime)
        << longTime.count() << " ns for " << longPost.size() << " bytes, " << shortTime.count() << " ns for "
        << shortPost.size();
}

void expectTimeInProportion(const std::string& piece)
{
    expectTimeInProportion(postOfOneValue(piece, shortSize), postOfOneValue(piece, longSize));
    expectTimeInProportion(postOfManyValues(piece, shortSize), postOfManyValues(piece, longSize));
}

} // namespace

TEST(ReadingTime, ofAPlainPostIsInProportionToItsSize)
{
    expectTimeInProportion("plain text");
}

TEST(ReadingTime, ofAPostWithEscapesIsInProportionToItsSize)
{
    expectTimeInProportion(R"(\t\u00e9\"\\)");
}

// It is read by the JSON library, without an escape.
TEST(ReadingTime, ofAPostThatIsNotPlainIsInProportionToItsSize)
{
    expectTimeInProportion("\u00e9");
}

TEST(ReadingTime, ofAPostWhoseNamesAreNotInOrderIsInProportionToItsSize)
{
    expectTimeInProportion(postOfManyValues("plain text", shortSize, false),
                           postOfManyValues("plain text", longSize, false));
}

// The JSON library begins anew where the quick reader gives up.
TEST(ReadingTime, ofAPostThatIsPlainUpToItsEndIsInProportionToItsSize)
{
    const auto post = [](std::size_t size)
    { return postOf(R"("k":")" + repeated("plain text", size) + R"(\t")"); };
    expectTimeInProportion(post(shortSize), post(longSize));
}
