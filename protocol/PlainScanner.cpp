#include "protocol/PlainScanner.h"

#include <cstdint>
#include <cstring>

namespace
{

constexpr bool isPlainCharacter(char character)
{
    return character >= ' ' && character <= '~' && character != '"' && character != '\\';
}

} // namespace

// Tests eight bytes at a time, because most of a document's cost is here.
std::size_t PlainText::plainLength(std::string_view text)
{
    constexpr uint64_t ones = 0x0101010101010101U;
    constexpr uint64_t highs = ones * 0x80;
    std::size_t length = 0;
    for (; text.size() - length >= sizeof(uint64_t); length += sizeof(uint64_t))
    {
        uint64_t bytes = 0;
        std::memcpy(&bytes, text.data() + length, sizeof(bytes));
        const uint64_t quotes = bytes ^ (ones * '"');
        const uint64_t slashes = bytes ^ (ones * '\\');
        const uint64_t rubouts = bytes ^ (ones * 0x7F);
        // Sets the high bit of each byte below a space, of each byte that the exclusive or made 0, and keeps
        // those already set.
        const uint64_t odd =
            (bytes - ones * ' ') | (quotes - ones) | (slashes - ones) | (rubouts - ones) | bytes;
        if ((odd & highs) != 0)
            break;
    }
    while (length < text.size() && isPlainCharacter(text[length]))
        ++length;
    return length;
}
