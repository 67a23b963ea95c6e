// Splits the bytes of a connection into messages.

#include <stdexcept>
#include <string>
#include <string_view>

#include "benchmarks/micro/Measured.h"
#include "benchmarks/micro/Samples.h"
#include "broker/wire/FrameReader.h"

namespace
{

constexpr std::size_t longest = std::size_t{1024} * 1024;

// `count` messages of one frame each, as the broker receives them in one read.
std::string framesOf(const std::string& body, std::size_t count)
{
    std::string bytes;
    while (count-- != 0)
        bytes += std::string(1, '\0') + static_cast<char>(body.size()) + body;
    return bytes;
}

std::size_t messagesIn(FrameReader& reader, std::string_view bytes)
{
    FrameReader::Item item;
    std::size_t count = 0;
    while (reader.next(bytes, longest, item) == FrameReader::Result::Message)
    {
        benchmark::DoNotOptimize(item);
        ++count;
    }
    return count;
}

// Many short messages in one read.
void readShortFrames(benchmark::State& state)
{
    constexpr std::size_t frames = 100;
    const std::string bytes = framesOf(Samples::value(1), frames);
    FrameReader reader;
    if (messagesIn(reader, bytes) != frames)
        throw std::logic_error("frames cannot be read");
    const Measured measured(state, frames);
    for (auto _ : state)
        benchmark::DoNotOptimize(messagesIn(reader, bytes));
}
BENCHMARK(readShortFrames);

// One message that arrives in two pieces.
void readFrameInPieces(benchmark::State& state)
{
    const std::string bytes = framesOf(Samples::value(1), 1);
    const std::string_view first = std::string_view(bytes).substr(0, bytes.size() / 2);
    const std::string_view second = std::string_view(bytes).substr(first.size());
    FrameReader reader;
    if (messagesIn(reader, first) != 0 || messagesIn(reader, second) != 1)
        throw std::logic_error("a frame cannot be put together");
    const Measured measured(state);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(messagesIn(reader, first));
        benchmark::DoNotOptimize(messagesIn(reader, second));
    }
}
BENCHMARK(readFrameInPieces);

} // namespace
