#include "protocol/EscapedText.h"

#include <array>
#include <cstdint>

#include "protocol/PlainScanner.h"
#include "protocol/Utf8.h"

// A JSON library writes the same, and takes four times as long. Anybody may post a text without a plain
// character, and have it sent to all.

namespace
{

constexpr uint32_t replacement = 0xFFFD;
constexpr uint32_t firstOfPairs = 0x10000; // from here on UTF-16 needs two units

void appendUnit(std::string& to, uint32_t unit)
{
    constexpr std::string_view digits = "0123456789abcdef";
    const std::array<char, 6> escape{'\\',
                                     'u',
                                     digits[unit >> 12U & 0xFU],
                                     digits[unit >> 8U & 0xFU],
                                     digits[unit >> 4U & 0xFU],
                                     digits[unit & 0xFU]};
    to.append(escape.data(), escape.size());
}

void appendCode(std::string& to, uint32_t code)
{
    if (code < firstOfPairs)
        return appendUnit(to, code);
    appendUnit(to, 0xD800 + ((code - firstOfPairs) >> 10U));
    appendUnit(to, 0xDC00 + ((code - firstOfPairs) & 0x3FFU));
}

// A character of ASCII that is not plain.
void appendSpecial(std::string& to, char character)
{
    constexpr std::string_view shortened = "\b\f\n\r\t\"\\";
    constexpr std::string_view names = "bfnrt\"\\";
    constexpr char rubout = 0x7F; // the only one that stands for itself
    const std::size_t name = shortened.find(character);
    if (name != std::string_view::npos)
    {
        to += '\\';
        to += names[name];
    }
    else if (character == rubout)
        to += character;
    else
        appendUnit(to, static_cast<unsigned char>(character));
}

bool isAscii(char character)
{
    return static_cast<unsigned char>(character) < 0x80;
}

} // namespace

void EscapedText::append(std::string& to, std::string_view text)
{
    to += '"';
    for (std::size_t at = 0; at < text.size();)
    {
        if (!isAscii(text[at]))
        {
            const Utf8::Character character = Utf8::characterAt(text, at);
            appendCode(to, character.isUtf8 ? character.code : replacement);
            at += character.bytes;
            continue;
        }
        const std::size_t plain = PlainText::plainLength(text.substr(at));
        to += text.substr(at, plain);
        at += plain;
        if (at < text.size() && isAscii(text[at]))
            appendSpecial(to, text[at++]);
    }
    to += '"';
}
