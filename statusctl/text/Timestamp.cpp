#include "statusctl/text/Timestamp.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace
{

std::string secondsOf(const std::tm& date)
{
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &date)};
}

// "+01:00"
std::string zoneOf(const std::tm& date)
{
    std::array<char, 8> text{};
    std::strftime(text.data(), text.size(), "%z", &date); // "+0100"
    std::string zone = text.data();
    return zone.insert(3, ":");
}

// With leading zeros.
std::string fraction(long number, std::size_t digits)
{
    const std::string text = std::to_string(number);
    return "." + std::string(digits - text.size(), '0') + text;
}

struct Split
{
    std::time_t seconds;
    long microseconds;
};

Split split(Timestamp::Time time)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return {std::chrono::system_clock::to_time_t(seconds), static_cast<long>((time - seconds).count())};
}

} // namespace

// Not system_clock::now(): on 32-bit processors the C++ library's clock ends in 2038.
Timestamp::Time Timestamp::now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return Time(std::chrono::seconds(now.tv_sec) + std::chrono::microseconds(now.tv_nsec / 1000));
}

std::string Timestamp::utc(Time time)
{
    const Split parts = split(time);
    std::tm date{};
    gmtime_r(&parts.seconds, &date);
    return secondsOf(date) + fraction(parts.microseconds, 6) + "Z";
}

std::string Timestamp::local(Time time)
{
    const Split parts = split(time);
    std::tm date{};
    localtime_r(&parts.seconds, &date);
    return secondsOf(date) + fraction(parts.microseconds / 1000, 3) + zoneOf(date);
}

std::optional<Timestamp::Time> Timestamp::read(const std::string& text)
{
    std::tm date{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &date);
    long microseconds = 0;
    int read = 0;
    if (rest == nullptr || std::sscanf(rest, ".%6ldZ%n", &microseconds, &read) != 1 || rest[read] != '\0' ||
        read != 8 || microseconds < 0)
        return std::nullopt;
    return std::chrono::time_point_cast<std::chrono::microseconds>(
               std::chrono::system_clock::from_time_t(timegm(&date))) +
           std::chrono::microseconds(microseconds);
}
