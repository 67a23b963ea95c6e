// Fuzzes how the bytes after the handshake are split into messages and commands.

#include "broker/wire/FrameReader.h"
#include "fuzz/Fuzz.h"

#include <algorithm>

namespace
{

using Result = FrameReader::Result;

// A hash of everything that was read.
struct Digest
{
    uint64_t number = 14695981039346656037U;

    void add(uint64_t value) { number = (number ^ value) * 1099511628211U; }

    void add(std::string_view text)
    {
        add(text.size());
        for (const char byte : text)
            add(static_cast<unsigned char>(byte));
    }
};

uint64_t digestOf(std::string_view bytes, std::size_t piece, std::size_t mostBytes)
{
    Digest digest;
    FrameReader reader;
    FrameReader::Item item;
    for (Result result = Result::NeedsMore; result != Result::Violation && result != Result::Endless;)
    {
        std::string_view part = bytes.substr(0, piece);
        bytes.remove_prefix(part.size());
        const bool isEnd = part.empty();
        while ((result = reader.next(part, mostBytes, item)) != Result::NeedsMore)
        {
            digest.add(static_cast<uint64_t>(result));
            if (result == Result::Violation || result == Result::Endless)
                break;
            if (result == Result::TooLong)
                continue;
            digest.add(item.body);
            Fuzz::require(result == Result::Command || item.body.size() <= mostBytes,
                          "no message is too long");
            Fuzz::require(result == Result::Command || item.frames != 0, "a message has frames");
            if (result == Result::Message)
                digest.add(2 * item.frames + (item.firstIsEmpty ? 1 : 0));
        }
        Fuzz::require(reader.heldBytes() <= 2 * (mostBytes + 2048 + 64), "memory is bounded");
        if (isEnd)
            break;
    }
    return digest.number;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::size_t mostBytes = data[0];
    const std::size_t piece = 1 + data[1] % 16;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    const uint64_t whole = digestOf(bytes, std::max<std::size_t>(1, bytes.size()), mostBytes);
    Fuzz::require(whole == digestOf(bytes, piece, mostBytes), "pieces mean the same");
    return 0;
}
