#include "broker/Statistics.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sys/resource.h>
#include <unistd.h>

#include "protocol/Words.h"

// ---- Ranges: four for each doubling, starting at 1 microsecond.

std::size_t Durations::rangeOf(uint64_t microseconds)
{
    if (microseconds < 4)
        return static_cast<std::size_t>(microseconds);
    std::size_t doublings = 0;
    while (microseconds >= 8)
    {
        microseconds >>= 1U;
        ++doublings;
    }
    return std::min(ranges - 1, 4 * doublings + static_cast<std::size_t>(microseconds));
}

uint64_t Durations::upperEnd(std::size_t range)
{
    if (range < 4)
        return range;
    const std::size_t doublings = (range - 4) / 4;
    const uint64_t first = 4 + (range - 4) % 4;
    return ((first + 1) << doublings) - 1;
}

void Durations::add(uint64_t microseconds)
{
    ++mCounts[rangeOf(microseconds)];
    ++mCount;
    mLongest = std::max(mLongest, microseconds);
}

uint64_t Durations::percentile(unsigned percent) const
{
    const uint64_t wanted = (mCount * percent + 99) / 100;
    uint64_t sofar = 0;
    for (std::size_t range = 0; range < ranges; ++range)
    {
        sofar += mCounts[range];
        if (sofar >= wanted && sofar != 0)
            return std::min(upperEnd(range), mLongest);
    }
    return 0;
}

void Statistics::addVersion(Numbers& numbers)
{
    numbers["version.major"] = STATUSBROKER_VERSION_MAJOR;
    numbers["version.minor"] = STATUSBROKER_VERSION_MINOR;
    numbers["version.patch"] = STATUSBROKER_VERSION_PATCH;
}

void Statistics::Process::add(Numbers& numbers, TimePoint now)
{
    constexpr std::chrono::milliseconds pause{100};
    if (mNumbers.empty() || now - mReadAt >= pause)
    {
        mNumbers = read();
        mReadAt = now;
    }
    numbers.insert(mNumbers.begin(), mNumbers.end());
}

Statistics::Numbers Statistics::Process::read()
{
    Numbers numbers;
    std::error_code error;
    const std::filesystem::directory_iterator descriptors("/proc/self/fd", error);
    numbers[BrokerProtocol::Number::openDescriptors] =
        static_cast<uint64_t>(std::distance(begin(descriptors), end(descriptors)));

    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    numbers[BrokerProtocol::Number::mostDescriptors] = limit.rlim_cur;

    uint64_t pages = 0;
    std::ifstream memory("/proc/self/statm");
    memory >> pages >> pages; // first the total, then the resident pages
    numbers["memory.rss"] = pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return numbers;
}
