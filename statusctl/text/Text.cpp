#include "statusctl/text/Text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "protocol/Utf8.h"

namespace
{

using Utf8::Character;

struct Range
{
    uint32_t first;
    uint32_t last;
};

// Control characters, line breaks, and characters that Unicode marks as ignorable. They show nothing, hide
// their neighbours, or reorder the text.
constexpr Range hidden[]{
    {0x00, 0x1F},       // control characters
    {0x7F, 0x9F},       // delete, and the control characters beyond ASCII
    {0xAD, 0xAD},       // soft hyphen
    {0x34F, 0x34F},     // grapheme joiner
    {0x61C, 0x61C},     // Arabic letter mark
    {0x115F, 0x1160},   // Hangul fillers
    {0x17B4, 0x17B5},   // Khmer inherent vowels
    {0x180B, 0x180F},   // Mongolian selectors and separator
    {0x200B, 0x200F},   // zero width, marks of direction
    {0x2028, 0x202E},   // line and paragraph separator, embeddings, overrides
    {0x2060, 0x206F},   // word joiner, invisible operators, isolates
    {0x3164, 0x3164},   // Hangul filler
    {0xFE00, 0xFE0F},   // variation selectors
    {0xFEFF, 0xFEFF},   // byte order mark
    {0xFFA0, 0xFFA0},   // Hangul filler of half width
    {0xFFF0, 0xFFFB},   // annotations
    {0x1BCA0, 0x1BCA3}, // shorthand
    {0x1D173, 0x1D17A}, // music
    {0xE0000, 0xE0FFF}, // tags, variation selectors
};

constexpr Range blanks[]{
    {' ', ' '},       {0xA0, 0xA0},     {0x1680, 0x1680}, {0x2000, 0x200A},
    {0x202F, 0x202F}, {0x205F, 0x205F}, {0x2800, 0x2800}, {0x3000, 0x3000},
};

template <std::size_t Count>
bool isIn(const Range (&ranges)[Count], const Character& character)
{
    return character.isUtf8 &&
           std::any_of(std::begin(ranges), std::end(ranges),
                       [&](const Range& range)
                       { return character.code >= range.first && character.code <= range.last; });
}

template <typename Replace>
std::string rewritten(const std::string& text, Replace replace)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();)
    {
        const Character character = Utf8::characterAt(text, at);
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

bool isShown(const Character& character)
{
    return character.isUtf8 && !isIn(hidden, character);
}

std::string escapedCharacter(const Character& character, const std::string& bytes)
{
    if (bytes == "\n")
        return "\\n";
    if (bytes == "\r")
        return "\\r";
    if (bytes == "\t")
        return "\\t";
    if (bytes == "\\")
        return "\\\\";
    return isShown(character) ? bytes : hexadecimal(bytes);
}

std::string jsonEscapeOfUnit(uint32_t unit)
{
    std::array<char, 7> text{};
    std::snprintf(text.data(), text.size(), "\\u%04x", unit & 0xFFFFU);
    return text.data();
}

// Characters beyond U+FFFF take two escapes.
std::string jsonEscapeOf(uint32_t code)
{
    if (code <= 0xFFFF)
        return jsonEscapeOfUnit(code);
    const uint32_t above = code - 0x10000;
    return jsonEscapeOfUnit(0xD800 + (above >> 10U)) + jsonEscapeOfUnit(0xDC00 + (above & 0x3FFU));
}

constexpr std::string_view base64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

std::string Text::valid(const std::string& text)
{
    return rewritten(text, [](const Character& character, const std::string& bytes)
                     { return character.isUtf8 ? bytes : "\xEF\xBF\xBD"; });
}

std::string Text::escaped(const std::string& text)
{
    return rewritten(text, escapedCharacter);
}

std::string Text::escapedName(const std::string& name)
{
    return rewritten(name,
                     [](const Character& character, const std::string& bytes)
                     {
                         const bool wouldEndIt = bytes == "=" || isIn(blanks, character);
                         return wouldEndIt ? hexadecimal(bytes) : escapedCharacter(character, bytes);
                     });
}

std::string Text::harmless(const std::string& text)
{
    return rewritten(text,
                     [](const Character& character, const std::string& bytes)
                     {
                         const bool isLayout = bytes == "\n" || bytes == "\t";
                         return isLayout || isShown(character) ? bytes : hexadecimal(bytes);
                     });
}

std::string Text::escapedInJson(const std::string& json)
{
    return rewritten(json,
                     [](const Character& character, const std::string& bytes)
                     {
                         const bool isWanted = character.code >= ' ' && isIn(hidden, character);
                         return isWanted ? jsonEscapeOf(character.code) : bytes;
                     });
}

std::string Text::cutOff(const std::string& text)
{
    constexpr std::size_t most = 40;
    constexpr const char* ellipsis = "...";
    std::size_t characters = 0;
    for (std::size_t index = 0; index < text.size(); ++index)
    {
        const bool isBegin = (static_cast<unsigned char>(text[index]) & 0xC0U) != 0x80U;
        if (isBegin && characters++ == most)
            return text.substr(0, index) + ellipsis;
    }
    return text;
}

std::string Text::counted(std::size_t number, const std::string& what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
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
    return base64(bytes) == text; // false if bits are left over
}
