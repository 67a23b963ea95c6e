#ifndef PROTOCOL_UTF8_H
#define PROTOCOL_UTF8_H

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Tells UTF-8 from other bytes. Pure functions, which need no memory.
namespace Utf8
{

struct Character
{
    std::size_t bytes;
    bool isUtf8;
    uint32_t code; ///< the byte itself if it is not UTF-8
};

/// The character at this position. A byte that belongs to no character counts as itself.
Character characterAt(std::string_view text, std::size_t at);

bool isValid(std::string_view text);

} // namespace Utf8

#endif
