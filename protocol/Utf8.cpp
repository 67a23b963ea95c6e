#include "protocol/Utf8.h"

#include <array>

namespace
{

bool isContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// The length of a character with this first byte; 0 if no character begins so.
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

// Overlong, a half of a surrogate pair, or beyond the last character.
bool isForbidden(std::size_t length, uint32_t code)
{
    constexpr std::array<uint32_t, 5> least{0, 0, 0x80, 0x800, 0x10000};
    return code < least.at(length) || (code >= 0xD800 && code < 0xE000) || code > 0x10FFFF;
}

} // namespace

Utf8::Character Utf8::characterAt(std::string_view text, std::size_t at)
{
    const auto first = static_cast<unsigned char>(text[at]);
    const std::size_t length = lengthOf(first);
    if (length == 1)
        return {1, true, first};
    if (length == 0 || at + length > text.size())
        return {1, false, first};
    uint32_t code = first & (0x7FU >> length);
    for (std::size_t next = at + 1; next < at + length; ++next)
    {
        if (!isContinuation(text[next]))
            return {1, false, first};
        code = code << 6U | (static_cast<unsigned char>(text[next]) & 0x3FU);
    }
    if (isForbidden(length, code))
        return {1, false, first};
    return {length, true, code};
}

bool Utf8::isValid(std::string_view text)
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
