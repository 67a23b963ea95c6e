#include "tests/bridge/ScriptedServer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <iterator>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr std::size_t lengthBytes = 2;

unsigned numberAt(const std::string& bytes, std::size_t at)
{
    constexpr unsigned byte = 256;
    return static_cast<unsigned char>(bytes.at(at)) * byte + static_cast<unsigned char>(bytes.at(at + 1));
}

std::string numberAs(unsigned number)
{
    constexpr unsigned bits = 8;
    return {static_cast<char>(number >> bits), static_cast<char>(number)};
}

// A number in one to four bytes. Moves `at` behind it; returns false if bytes are missing.
bool readLength(const std::string& bytes, std::size_t& at, std::size_t& length)
{
    constexpr unsigned more = 0x80;
    constexpr unsigned bits = 7;
    length = 0;
    for (unsigned shift = 0; at < bytes.size(); shift += bits)
    {
        const auto byte = static_cast<unsigned char>(bytes[at++]);
        length |= static_cast<std::size_t>(byte & (more - 1)) << shift;
        if ((byte & more) == 0)
            return true;
    }
    return false;
}

} // namespace

ScriptedServer::ScriptedServer(unsigned receiveMaximum)
    : mReceiveMaximum(receiveMaximum),
      mListener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (bind(mListener.number(), plain, size) != 0 || listen(mListener.number(), 1) != 0 ||
        getsockname(mListener.number(), plain, &size) != 0)
        throw std::runtime_error("the scripted server cannot listen");
    mPort = ntohs(address.sin_port);
}

void ScriptedServer::kick()
{
    mConnection = Descriptor();
    mBytes.clear();
    mUnderWay.clear();
}

void ScriptedServer::acknowledgeAll()
{
    constexpr char acknowledgement = 0x40;
    for (const int number : std::exchange(mUnderWay, {}))
        send(std::string{acknowledgement, lengthBytes} + numberAs(static_cast<unsigned>(number)));
}

std::vector<ScriptedServer::Packet> ScriptedServer::packetsOf(Kind kind) const
{
    std::vector<Packet> found;
    std::copy_if(mPackets.begin(), mPackets.end(), std::back_inserter(found),
                 [kind](const Packet& packet) { return packet.kind == kind; });
    return found;
}

void ScriptedServer::work()
{
    constexpr int patience = 10;
    std::array<pollfd, 2> items{
        {{mListener.number(), POLLIN, 0}, {mConnection.isOpen() ? mConnection.number() : -1, POLLIN, 0}}};
    poll(items.data(), items.size(), patience);
    if (items[1].revents != 0)
        takeBytes();
    if (items[0].revents == 0)
        return;
    kick();
    mConnection = Descriptor(accept4(mListener.number(), nullptr, nullptr, SOCK_CLOEXEC));
    ++mConnections;
}

void ScriptedServer::takeBytes()
{
    std::array<char, 65536> buffer{};
    const ssize_t size = recv(mConnection.number(), buffer.data(), buffer.size(), 0);
    if (size <= 0)
        return kick();
    mBytes.append(buffer.data(), static_cast<std::size_t>(size));
    while (takesPackets && mConnection.isOpen() && takePacket())
    {
    }
}

bool ScriptedServer::takePacket()
{
    std::size_t at = 1;
    std::size_t length = 0;
    if (!readLength(mBytes, at, length) || mBytes.size() < at + length)
        return false;
    constexpr unsigned kindBits = 4;
    const auto kind = static_cast<Kind>(static_cast<unsigned char>(mBytes[0]) >> kindBits);
    Packet packet{kind, "", "", mBytes.substr(at, length), 0};
    mBytes.erase(0, at + length);
    take(std::move(packet));
    return true;
}

void ScriptedServer::take(Packet packet)
{
    const std::string& bytes = packet.bytes;
    std::string answer;
    if (packet.kind == Kind::Connect)
    {
        // flags, the reason, and a property
        const std::string properties = mReceiveMaximum == 0 ? "" : "\x21" + numberAs(mReceiveMaximum);
        answer = std::string("\0\0", 2) + static_cast<char>(properties.size()) + properties;
        answer = std::string("\x20") + static_cast<char>(answer.size()) + answer;
    }
    if (packet.kind == Kind::Subscribe)
    {
        packet.number = static_cast<int>(numberAt(bytes, 0));
        std::size_t at = lengthBytes;
        std::size_t properties = 0;
        readLength(bytes, at, properties);
        at += properties;
        packet.topic = bytes.substr(at + lengthBytes, numberAt(bytes, at));
        if (answersSubscriptions)
            answer = std::string("\x90\x04", 2) + bytes.substr(0, lengthBytes) + std::string("\0\x01", 2);
    }
    if (packet.kind == Kind::Publish)
    {
        std::size_t at = lengthBytes + numberAt(bytes, 0);
        packet.topic = bytes.substr(lengthBytes, at - lengthBytes);
        packet.number = static_cast<int>(numberAt(bytes, at));
        at += lengthBytes;
        std::size_t properties = 0;
        readLength(bytes, at, properties);
        packet.payload = bytes.substr(at + properties);
        mUnderWay.push_back(packet.number);
        mMostUnderWay = std::max(mMostUnderWay, mUnderWay.size());
    }
    if (packet.kind == Kind::Ping)
        answer = std::string("\xd0\0", 2);
    const bool isConnect = packet.kind == Kind::Connect;
    mPackets.push_back(std::move(packet));
    send(answer);
    if (isConnect && kicksAfterAccepting)
        kick();
    if (acknowledges && mConnection.isOpen())
        acknowledgeAll();
}

void ScriptedServer::send(const std::string& bytes)
{
    if (!bytes.empty() && mConnection.isOpen()) [[maybe_unused]]
        const ssize_t sent = ::send(mConnection.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}
