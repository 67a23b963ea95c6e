#include "statusctl/text/Text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace
{

struct Character
{
    std::size_t bytes;
    bool isUtf8;
    bool isControl;
};

bool isContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// How many bytes a character takes that begins so; 0 if none does.
std::size_t lengthOf(unsigned char first)
{
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first < 0xE0)
        return 2;
    if (first >= 0xE0 && first < 0xF0)
        return 3;
    return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

// Longer than need be, a half of a surrogate pair, or beyond the last character.
bool isForbidden(std::size_t length, uint32_t code)
{
    constexpr std::array<uint32_t, 5> least{0, 0, 0x80, 0x800, 0x10000};
    return code < least.at(length) || (code >= 0xD800 && code < 0xE000) || code > 0x10FFFF;
}

// The character that begins there. A byte that belongs to none stands for itself.
Character characterAt(std::string_view text, std::size_t at)
{
    const auto first = static_cast<unsigned char>(text[at]);
    const std::size_t length = lengthOf(first);
    if (length == 1)
        return {1, true, first < ' ' || first == 0x7F};
    if (length == 0 || at + length > text.size())
        return {1, false, false};
    uint32_t code = first & (0x7FU >> length);
    for (std::size_t next = at + 1; next < at + length; ++next)
    {
        if (!isContinuation(text[next]))
            return {1, false, false};
        code = code << 6U | (static_cast<unsigned char>(text[next]) & 0x3FU);
    }
    if (isForbidden(length, code))
        return {1, false, false};
    return {length, true, code < 0xA0};
}

template <typename Replace>
std::string rewritten(const std::string& text, Replace replace)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();)
    {
        const Character character = characterAt(text, at);
        result += replace(character, text.substr(at, character.bytes));
        at += character.bytes;
    }
    return result;
}

std::string hexadecimal(const std::string& bytes)
{
    std::string result;
    for (const char byte : bytes)
    {
        std::array<char, 5> digits{};
        std::snprintf(digits.data(), digits.size(), "\\x%02x", static_cast<unsigned char>(byte));
        result += digits.data();
    }
    return result;
}

constexpr std::string_view base64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

bool Text::isUtf8(const std::string& text)
{
    for (std::size_t at = 0; at < text.size();)
    {
        const Character character = characterAt(text, at);
        if (!character.isUtf8)
            return false;
        at += character.bytes;
    }
    return true;
}

std::string Text::valid(const std::string& text)
{
    return rewritten(text, [](const Character& character, const std::string& bytes)
                     { return character.isUtf8 ? bytes : "\xEF\xBF\xBD"; });
}

std::string Text::escaped(const std::string& text)
{
    return rewritten(text,
                     [](const Character& character, const std::string& bytes) -> std::string
                     {
                         if (bytes == "\n")
                             return "\\n";
                         if (bytes == "\r")
                             return "\\r";
                         if (bytes == "\t")
                             return "\\t";
                         if (bytes == "\\")
                             return "\\\\";
                         return character.isControl || !character.isUtf8 ? hexadecimal(bytes) : bytes;
                     });
}

std::string Text::harmless(const std::string& text)
{
    return rewritten(text,
                     [](const Character& character, const std::string& bytes)
                     {
                         const bool isHarmless =
                             character.isUtf8 && (!character.isControl || bytes == "\n" || bytes == "\t");
                         return isHarmless ? bytes : hexadecimal(bytes);
                     });
}

std::string Text::base64(const std::string& bytes)
{
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3)
    {
        uint32_t group = 0;
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        for (std::size_t index = 0; index < 3; ++index)
            group = group << 8U | (index < count ? static_cast<unsigned char>(bytes[at + index]) : 0U);
        for (std::size_t index = 0; index < 4; ++index)
            text += index <= count ? base64Digits[(group >> (18U - 6U * index)) & 0x3FU] : '=';
    }
    return text;
}

bool Text::readBase64(const std::string& text, std::string& bytes)
{
    bytes.clear();
    const std::size_t end = text.find('=');
    const std::size_t digits = std::min(end, text.size());
    const std::size_t padding = text.size() - digits;
    if (text.size() % 4 != 0 || padding > 2 || text.find_first_not_of('=', digits) != std::string::npos)
        return false;
    uint32_t group = 0;
    for (std::size_t at = 0; at < digits; ++at)
    {
        const std::size_t digit = base64Digits.find(text[at]);
        if (digit == std::string_view::npos)
            return false;
        group = group << 6U | static_cast<uint32_t>(digit);
        if (at % 4 != 0)
            bytes += static_cast<char>(group >> (6U - 2U * (at % 4)));
    }
    return base64(bytes) == text; // not if bits are left over
}

std::string Text::escapedName(const std::string& name)
{
    std::string result;
    for (const char letter : escaped(name))
        result += letter == '=' ? "\\x3d" : letter == ' ' ? "\\x20" : std::string(1, letter);
    return result;
}
