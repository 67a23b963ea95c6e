#include "broker/wire/Handshake.h"

#include <array>
#include <initializer_list>
#include <strings.h>

using namespace std::string_view_literals;

namespace
{

constexpr std::size_t greetingBytes = 64;
constexpr std::size_t signatureEnd = 9;
constexpr std::size_t majorVersionAt = 10;
constexpr std::size_t minorVersionAt = 11;
constexpr std::size_t mechanismAt = 12;
constexpr std::size_t mechanismBytes = 20;
constexpr std::string_view mechanism = "NULL"sv;
constexpr std::string_view dealer = "DEALER"sv;

std::string openingWith(std::string_view socketType)
{
    std::string bytes("\xff\0\0\0\0\0\0\0\0\x7f\x03\x01", 12);
    bytes += mechanism;
    bytes.resize(greetingBytes, '\0');
    std::string ready("\5READY\x0bSocket-Type\0\0\0", 21);
    ready += static_cast<char>(socketType.size());
    ready += socketType;
    bytes += '\4'; // a command
    bytes += static_cast<char>(ready.size());
    return bytes + ready;
}

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> texts)
{
    for (const std::string_view each : texts)
    {
        if (each == text)
            return true;
    }
    return false;
}

bool fits(Handshake::Kind kind, std::string_view socketType)
{
    switch (kind)
    {
    case Handshake::Kind::Request:
        return isOneOf(socketType, {"REQ", dealer});
    case Handshake::Kind::Post:
        return isOneOf(socketType, {"PUB", "XPUB"});
    case Handshake::Kind::Notify:
        return isOneOf(socketType, {"SUB", "XSUB"});
    }
    return false;
}

// Takes this many bytes from the front. Returns false if there are fewer.
bool take(std::string_view& bytes, std::size_t size, std::string_view& piece)
{
    if (bytes.size() < size)
        return false;
    piece = bytes.substr(0, size);
    bytes.remove_prefix(size);
    return true;
}

std::size_t numberOf(std::string_view bigEndian)
{
    std::size_t number = 0;
    for (const char byte : bigEndian)
        number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

bool takeProperty(std::string_view& bytes, std::string_view& name, std::string_view& value)
{
    std::string_view size;
    if (!take(bytes, 1, size) || !take(bytes, numberOf(size), name))
        return false;
    return take(bytes, 4, size) && take(bytes, numberOf(size), value);
}

// Names of properties are case-insensitive.
bool isSocketType(std::string_view name)
{
    constexpr std::string_view socketType = "Socket-Type"sv;
    return name.size() == socketType.size() && strncasecmp(name.data(), socketType.data(), name.size()) == 0;
}

} // namespace

std::string_view Handshake::opening(Kind kind)
{
    static const std::array<std::string, 3> openings{openingWith("ROUTER"), openingWith("SUB"),
                                                     openingWith("XPUB")};
    return openings[static_cast<std::size_t>(kind)];
}

Handshake::Result Handshake::takeGreeting(std::string_view& bytes)
{
    for (; mGreeted < greetingBytes && !bytes.empty(); ++mGreeted)
    {
        if (!isGood(mGreeted, static_cast<unsigned char>(bytes.front())))
            return Result::Refused;
        bytes.remove_prefix(1);
    }
    return mGreeted == greetingBytes ? Result::Greeted : Result::NeedsMore;
}

bool Handshake::isGood(std::size_t position, unsigned char byte)
{
    constexpr unsigned char signature = 0xff;
    constexpr unsigned char signatureLast = 0x7f;
    constexpr unsigned oldestMajorVersion = 3;
    if (position == 0)
        return byte == signature;
    if (position == signatureEnd)
        return byte == signatureLast;
    if (position == majorVersionAt)
        return byte >= oldestMajorVersion;
    if (position == minorVersionAt)
        mMinorVersion = byte;
    if (position >= mechanismAt && position < mechanismAt + mechanismBytes)
    {
        const std::size_t index = position - mechanismAt;
        return byte == (index < mechanism.size() ? static_cast<unsigned char>(mechanism[index]) : 0);
    }
    return true; // the rest is padding
}

bool Handshake::acceptsReady(std::string_view command)
{
    constexpr std::string_view ready = "\5READY"sv;
    if (command.substr(0, ready.size()) != ready)
        return false;
    command.remove_prefix(ready.size());
    bool isFitting = false;
    while (!command.empty())
    {
        std::string_view name;
        std::string_view value;
        if (!takeProperty(command, name, value))
            return false;
        if (!isSocketType(name))
            continue;
        isFitting = fits(mKind, value);
        mIsDealer = value == dealer;
    }
    return isFitting;
}
