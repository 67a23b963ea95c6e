#ifndef BROKER_WIRE_FRAMEWRITER_H
#define BROKER_WIRE_FRAMEWRITER_H

#include <array>
#include <cstddef>
#include <string_view>

/// Splits a text into frames of at most 512 bytes. A short text is one frame, and only an empty text has an
/// empty frame. Append is anything that takes a std::string_view.
namespace FrameWriter
{

constexpr unsigned char moreFlag = 1;
constexpr unsigned char longFlag = 2;
constexpr unsigned char commandFlag = 4;

constexpr std::size_t shortHeader = 2;
constexpr std::size_t longHeader = 9;

template <class Append>
void frame(Append&& append, std::string_view body, unsigned char flags)
{
    const std::size_t size = body.size(); // fits in two bytes
    if (size > 0xff)
    {
        const std::array<char, longHeader> header{
            static_cast<char>(flags | longFlag), 0, 0, 0, 0, 0, 0, static_cast<char>(size >> 8 & 0xff),
            static_cast<char>(size & 0xff)};
        append(std::string_view(header.data(), header.size()));
    }
    else
    {
        const std::array<char, shortHeader> header{static_cast<char>(flags), static_cast<char>(size)};
        append(std::string_view(header.data(), header.size()));
    }
    append(body);
}

/// Writes the frames of a text, the last one marked as such.
template <class Append>
void message(Append&& append, std::string_view text)
{
    constexpr std::size_t most = 512;
    for (; text.size() > most; text.remove_prefix(most))
        frame(append, text.substr(0, most), moreFlag);
    frame(append, text, 0);
}

/// The body of the first frame in bytes that were written here, as far as it is there.
inline std::string_view bodyOfFirst(std::string_view bytes)
{
    const auto byte = [bytes](std::size_t at)
    { return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at])); };
    if ((byte(0) & longFlag) != 0)
        return bytes.substr(longHeader, byte(longHeader - 2) << 8 | byte(longHeader - 1));
    return bytes.substr(shortHeader, byte(1));
}

} // namespace FrameWriter

#endif
