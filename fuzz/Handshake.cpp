// Fuzzes the start of a connection: greeting and READY, on all three ports.

#include "broker/wire/Handshake.h"
#include "broker/wire/FrameReader.h"
#include "fuzz/Fuzz.h"

#include <algorithm>
#include <array>

namespace
{

constexpr std::array<Handshake::Kind, 3> kinds{Handshake::Kind::Request, Handshake::Kind::Post,
                                               Handshake::Kind::Notify};
constexpr std::size_t greetingBytes = 64;

struct Outcome
{
    Handshake::Result result = Handshake::Result::NeedsMore;
    std::size_t taken = 0;
    bool isReady = false;

    bool operator==(const Outcome& other) const
    {
        return result == other.result && taken == other.taken && isReady == other.isReady;
    }
};

Outcome read(Handshake::Kind kind, std::string_view bytes, std::size_t piece)
{
    Outcome outcome;
    Handshake handshake(kind);
    while (outcome.result == Handshake::Result::NeedsMore && outcome.taken < bytes.size())
    {
        std::string_view part = bytes.substr(outcome.taken, piece);
        const std::size_t size = part.size();
        outcome.result = handshake.takeGreeting(part);
        outcome.taken += size - part.size();
    }
    if (outcome.result != Handshake::Result::Greeted)
        return outcome;
    bytes.remove_prefix(outcome.taken);
    FrameReader reader;
    FrameReader::Item item;
    outcome.isReady = reader.next(bytes, greetingBytes, item) == FrameReader::Result::Command &&
                      handshake.acceptsReady(item.body);
    return outcome;
}

bool isGreeting(std::string_view bytes)
{
    using namespace std::string_view_literals;
    constexpr std::string_view mechanism = "NULL\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv;
    return bytes.size() >= greetingBytes && bytes[0] == '\xff' && bytes[9] == '\x7f' &&
           static_cast<unsigned char>(bytes[10]) >= 3 && bytes.substr(12, mechanism.size()) == mechanism;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const Handshake::Kind kind = kinds[data[0] % kinds.size()];
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Outcome whole = read(kind, bytes, bytes.size());
    Fuzz::require(whole == read(kind, bytes, 1), "pieces of one byte mean the same");
    Fuzz::require(whole.taken <= greetingBytes, "the greeting ends");
    Fuzz::require((whole.result == Handshake::Result::Greeted) == isGreeting(bytes),
                  "only a greeting is one");
    if (whole.isReady)
        Fuzz::require(bytes.substr(greetingBytes).find("READY") != std::string_view::npos, "it was said");
    return 0;
}
