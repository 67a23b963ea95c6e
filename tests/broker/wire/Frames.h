#ifndef TESTS_BROKER_WIRE_FRAMES_H
#define TESTS_BROKER_WIRE_FRAMES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Frames as the protocol defines them, written and read independently of the broker's own code.
namespace WireFrames
{

constexpr unsigned more = 1;
constexpr unsigned isLong = 2;
constexpr unsigned command = 4;

inline std::string header(std::uint64_t size, unsigned flags)
{
    const bool needsLong = size > 0xff || (flags & isLong) != 0;
    std::string bytes(1, static_cast<char>(flags | (needsLong ? isLong : 0U)));
    for (int shift = needsLong ? 56 : 0; shift >= 0; shift -= 8)
        bytes += static_cast<char>(size >> shift & 0xff);
    return bytes;
}

inline std::string frame(std::string_view body, unsigned flags = 0)
{
    return header(body.size(), flags) + std::string(body);
}

/// All but the last are marked as followed by more.
inline std::string message(const std::vector<std::string>& frames)
{
    std::string bytes;
    for (std::size_t index = 0; index < frames.size(); ++index)
        bytes += frame(frames[index], index + 1 < frames.size() ? more : 0);
    return bytes;
}

struct Frame
{
    unsigned flags;
    std::string body;
};

/// The frames that the bytes hold; what is cut off at their end is left out.
inline std::vector<Frame> framesIn(std::string_view bytes)
{
    std::vector<Frame> frames;
    while (bytes.size() >= 2)
    {
        const auto flags = static_cast<unsigned char>(bytes[0]);
        const std::size_t sizeBytes = (flags & isLong) != 0 ? 8 : 1;
        if (bytes.size() < 1 + sizeBytes)
            break;
        std::uint64_t size = 0;
        for (std::size_t at = 1; at <= sizeBytes; ++at)
            size = size << 8 | static_cast<unsigned char>(bytes[at]);
        bytes.remove_prefix(1 + sizeBytes);
        if (bytes.size() < size)
            break;
        frames.push_back({flags, std::string(bytes.substr(0, size))});
        bytes.remove_prefix(size);
    }
    return frames;
}

} // namespace WireFrames

#endif
