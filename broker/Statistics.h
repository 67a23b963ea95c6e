#ifndef BROKER_STATISTICS_H
#define BROKER_STATISTICS_H

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "daemon/Clock.h"

/// Durations of something that happens many times.
class Durations
{
public:
    void add(uint64_t microseconds);

    uint64_t longest() const { return mLongest; }

    /// In microseconds: the upper end of a range that is at most a quarter wide; 0 if there are none.
    uint64_t percentile(unsigned percent) const;

private:
    static constexpr std::size_t ranges = 128;

    static std::size_t rangeOf(uint64_t microseconds);
    static uint64_t upperEnd(std::size_t range);

    std::array<uint64_t, ranges> mCounts{};
    uint64_t mCount = 0;
    uint64_t mLongest = 0;
};

/// The broker's numbers about itself. None of them is a status value.
namespace Statistics
{

using Numbers = std::map<std::string, uint64_t>;

void addVersion(Numbers& numbers);

/// The kernel's numbers of this process: "descriptors.open", "descriptors.limit", "memory.rss" in bytes.
/// Asking the kernel takes a while, so the broker asks only a few times a second.
class Process
{
public:
    void add(Numbers& numbers, TimePoint now);

private:
    static Numbers read();

    Numbers mNumbers;
    TimePoint mReadAt{};
};

} // namespace Statistics

#endif
