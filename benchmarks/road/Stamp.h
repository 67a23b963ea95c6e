#ifndef BENCHMARKS_ROAD_STAMP_H
#define BENCHMARKS_ROAD_STAMP_H

#include <cstdint>
#include <optional>
#include <string>
#include <time.h>

/// The content of a posted value, in 32 bytes: when and in which run it was posted, and its number in the
/// run.
struct Stamp
{
    uint64_t time = 0; ///< nanoseconds of a clock that all processes of a machine share
    uint32_t run = 0;
    uint32_t number = 0;

    static uint64_t now()
    {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
    }

    std::string text() const
    {
        std::string digits(size, '0');
        write(&digits[0], time);
        write(&digits[16], uint64_t{run} << 32 | number);
        return digits;
    }

    static std::optional<Stamp> read(const std::string& text)
    {
        if (text.size() != size)
            return std::nullopt;
        const uint64_t rest = number16(&text[16]);
        return Stamp{number16(&text[0]), static_cast<uint32_t>(rest >> 32), static_cast<uint32_t>(rest)};
    }

private:
    static constexpr std::size_t size = 32;

    // Sixteen letters, "a" to "p". Faster than printf(), whose time would be measured too.
    static void write(char* letters, uint64_t number)
    {
        for (int i = 15; i >= 0; --i, number >>= 4)
            letters[i] = static_cast<char>('a' + (number & 15));
    }

    static uint64_t number16(const char* letters)
    {
        uint64_t number = 0;
        for (int i = 0; i < 16; ++i)
            number = number << 4 | static_cast<uint64_t>(letters[i] - 'a');
        return number;
    }
};

#endif
