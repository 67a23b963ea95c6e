#include "protocol/EscapedText.h"

#include <cstdint>

#include "protocol/PlainScanner.h"
#include "protocol/Utf8.h"

// A JSON library writes the same, and takes twenty times as long. Anybody may post a text without a plain
// character, and have it sent to all.

namespace
{

constexpr uint32_t replacement = 0xFFFD;
constexpr uint32_t firstOfPairs = 0x10000; // from here on UTF-16 needs two units

void appendUnit(std::string& to, uint32_t unit)
{
    constexpr std::string_view digits = "0123456789abcdef";
    to += "\\u";
    for (unsigned shift = 16; shift > 0;)
        to += digits[unit >> (shift -= 4) & 0xFU];
}

void appendCode(std::string& to, uint32_t code)
{
    if (code < firstOfPairs)
        return appendUnit(to, code);
    appendUnit(to, 0xD800 + ((code - firstOfPairs) >> 10U));
    appendUnit(to, 0xDC00 + ((code - firstOfPairs) & 0x3FFU));
}

void appendCharacter(std::string& to, Utf8::Character character)
{
    constexpr std::string_view shortened = "\b\f\n\r\t\"\\";
    constexpr std::string_view names = "bfnrt\"\\";
    constexpr uint32_t rubout = 0x7F; // the one character of ASCII that is not plain and stands for itself
    const std::size_t name =
        character.code <= rubout ? shortened.find(static_cast<char>(character.code)) : std::string_view::npos;
    if (name != std::string_view::npos)
    {
        to += '\\';
        to += names[name];
    }
    else if (character.code == rubout)
        to += static_cast<char>(character.code);
    else
        appendCode(to, character.isUtf8 ? character.code : replacement);
}

} // namespace

void EscapedText::append(std::string& to, std::string_view text)
{
    to += '"';
    while (!text.empty())
    {
        const std::size_t plain = PlainText::plainLength(text);
        to += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty())
            break;
        const Utf8::Character character = Utf8::characterAt(text, 0);
        appendCharacter(to, character);
        text.remove_prefix(character.bytes);
    }
    to += '"';
}
