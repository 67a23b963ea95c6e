#include "daemon/OptionText.h"

#include <charconv>
#include <cstddef>
#include <limits>
#include <system_error>

namespace OptionText
{

namespace
{

uint64_t unitOf(char suffix)
{
    return suffix == 'K' ? kibi : suffix == 'M' ? mebi : 1;
}

} // namespace

std::string quoted(const std::string& text)
{
    constexpr std::size_t longest = 40;
    std::string result = text.substr(0, longest);
    for (char& letter : result)
    {
        if (letter < ' ' || letter > '~')
            letter = '?';
    }
    return '"' + result + (text.size() > longest ? "...\"" : "\"");
}

std::optional<uint64_t> readNumber(std::string_view text)
{
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

std::optional<uint64_t> readSize(std::string_view text)
{
    const uint64_t unit = text.empty() ? 1 : unitOf(text.back());
    const auto number = readNumber(text.substr(0, text.size() - (unit == 1 ? 0 : 1)));
    if (!number || *number > std::numeric_limits<uint64_t>::max() / unit)
        return std::nullopt;
    return *number * unit;
}

std::string showNumber(uint64_t number)
{
    return std::to_string(number);
}

std::string showSize(uint64_t size)
{
    for (const char suffix : {'M', 'K'})
    {
        if (size % unitOf(suffix) == 0)
            return std::to_string(size / unitOf(suffix)) + suffix;
    }
    return std::to_string(size);
}

std::string checkText(const std::string& value)
{
    const bool isGood = !value.empty() && value.compare(0, 2, "--") != 0;
    return isGood ? std::string() : quoted(value) + " is empty or an option";
}

} // namespace OptionText
