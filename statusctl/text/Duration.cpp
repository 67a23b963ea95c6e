#include "statusctl/text/Duration.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <utility>

namespace
{

// Milliseconds per unit.
const std::map<std::string, double>& units()
{
    static const std::map<std::string, double> units{{"", 1e3},  {"s", 1e3},   {"sec", 1e3}, {"ms", 1},
                                                     {"m", 6e4}, {"min", 6e4}, {"h", 36e5}};
    return units;
}

} // namespace

std::optional<std::chrono::milliseconds> Duration::read(const std::string& text)
{
    constexpr double longest = 1000 * 36e5;
    double number = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, std::chars_format::fixed);
    const auto unit = units().find(std::string(end, last));
    if (error != std::errc() || unit == units().end() || !(number >= 0))
        return std::nullopt;
    const double milliseconds = number * unit->second;
    if (milliseconds > longest)
        return std::nullopt;
    return std::chrono::milliseconds(std::llround(milliseconds));
}

std::string Duration::writeExactly(std::chrono::milliseconds duration)
{
    constexpr std::pair<int64_t, const char*> longUnits[] = {{3600000, "h"}, {60000, "m"}, {1000, "s"}};
    for (const auto& [milliseconds, name] : longUnits)
    {
        if (duration.count() != 0 && duration.count() % milliseconds == 0)
            return std::to_string(duration.count() / milliseconds) + name;
    }
    return std::to_string(duration.count()) + "ms";
}

std::string Duration::write(std::chrono::microseconds duration)
{
    const auto count = static_cast<double>(duration.count());
    const bool isLong = count >= 1e6;
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%.*g %s", count < 1e6 && count >= 1e5 ? 4 : 3,
                  isLong ? count / 1e6 : count / 1e3, isLong ? "s" : "ms");
    return text.data();
}

std::string Duration::age(std::chrono::seconds age)
{
    constexpr int64_t minute = 60;
    constexpr int64_t hour = 60 * minute;
    constexpr int64_t day = 24 * hour;
    const int64_t seconds = std::max<int64_t>(age.count(), 0);
    if (seconds < minute)
        return std::to_string(seconds) + "s";
    if (seconds < hour)
        return std::to_string(seconds / minute) + "m";
    return seconds < day ? std::to_string(seconds / hour) + "h" : std::to_string(seconds / day) + "d";
}
