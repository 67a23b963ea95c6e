#ifndef TESTS_SUPPORT_WIREFRAMES_H
#define TESTS_SUPPORT_WIREFRAMES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Frames as the protocol defines them, written and read without the broker's code.
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

/// Marks all frames but the last as followed by more.
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

/// Takes the first frame off the front of the bytes; nothing while it is incomplete.
inline std::optional<Frame> takeFrame(std::string& bytes)
{
    if (bytes.size() < 2)
        return std::nullopt;
    const auto flags = static_cast<unsigned char>(bytes[0]);
    const std::size_t headerBytes = (flags & isLong) != 0 ? 9 : 2;
    if (bytes.size() < headerBytes)
        return std::nullopt;
    std::uint64_t size = 0;
    for (std::size_t at = 1; at < headerBytes; ++at)
        size = size << 8 | static_cast<unsigned char>(bytes[at]);
    if (bytes.size() - headerBytes < size)
        return std::nullopt;
    Frame frame{flags, bytes.substr(headerBytes, static_cast<std::size_t>(size))};
    bytes.erase(0, headerBytes + frame.body.size());
    return frame;
}

/// The whole frames in the bytes. Ignores an incomplete frame at the end.
inline std::vector<Frame> framesIn(std::string bytes)
{
    std::vector<Frame> frames;
    while (std::optional<Frame> frame = takeFrame(bytes))
        frames.push_back(std::move(*frame));
    return frames;
}

} // namespace WireFrames

#endif
