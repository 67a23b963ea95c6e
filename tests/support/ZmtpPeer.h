#ifndef TESTS_SUPPORT_ZMTPPEER_H
#define TESTS_SUPPORT_ZMTPPEER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Wait.h"
#include "tests/support/WireFrames.h"

/// A peer of the broker that shares no code with it, nor with libzmq: a TCP connection on which a test says
/// what it likes, byte by byte.
class ZmtpPeer
{
public:
    static constexpr uint16_t requestPort = 5555;
    static constexpr uint16_t postPort = 5556;
    static constexpr uint16_t notifyPort = 5557;

    // ---- What peers say.

    /// The greeting of version 3, 64 bytes.
    static std::string greeting(char minorVersion = 1);

    /// A READY command.
    static std::string ready(const std::string& socketType);

    static std::string ping(const std::string& context);
    static std::string pong(const std::string& context);

    /// A subscription, as a command and as peers of version 3.0 make it.
    static std::string subscribe(const std::string& prefix);
    static std::string subscribe30(const std::string& prefix);
    static std::string cancel(const std::string& prefix);

    /// A request in one frame, with its delimiter.
    static std::string request(const std::string& text);

    /// A post, or any text, in one frame.
    static std::string message(const std::string& text) { return WireFrames::frame(text); }

    /// The bytes that the broker sends at once on this port: greeting and READY.
    static std::string openingOf(uint16_t port);

    // ---- A connection.

    /// @param receiveBuffer bytes that the kernel takes for it; 0: as usual
    explicit ZmtpPeer(uint16_t port, int receiveBuffer = 0);

    /// At the other end: a connection that a client has made.
    static std::unique_ptr<ZmtpPeer> accepted(int socket)
    {
        return std::unique_ptr<ZmtpPeer>(new ZmtpPeer(0, AcceptedSocket{socket}));
    }

    ~ZmtpPeer();

    ZmtpPeer(const ZmtpPeer&) = delete;
    ZmtpPeer& operator=(const ZmtpPeer&) = delete;

    /// Completes the handshake as the socket that fits the port, and reads what the broker has sent of its
    /// own. False if that is not what it should be.
    bool shakeHands(char minorVersion = 1) { return shakeHandsAs(fittingType(), minorVersion); }
    bool shakeHandsAs(const std::string& socketType, char minorVersion = 1);

    /// Waits until everything is sent; false when the broker has closed the connection.
    bool write(std::string_view bytes);

    /// Sends what there is room for without waiting; returns how many bytes.
    std::size_t writeSome(std::string_view bytes);

    /// Reads `count` bytes, or those that came before the deadline or the end.
    std::string read(std::size_t count, std::chrono::milliseconds deadline = testDeadline);

    /// The next frame, whole; nothing at the deadline or the end.
    std::optional<WireFrames::Frame> readFrame(std::chrono::milliseconds deadline = testDeadline);

    /// The frames of the next message. Commands in between are left out; a PING is answered.
    std::optional<std::vector<std::string>> receive(std::chrono::milliseconds deadline = testDeadline);

    /// As one text; nothing at the deadline or the end.
    std::optional<std::string> receiveText(std::chrono::milliseconds deadline = testDeadline);

    /// Asks and returns the text of the answer; empty at the deadline or the end.
    std::string ask(const std::string& request);

    /// Whether the broker closes it within the deadline. Bytes that it sends before that are read away.
    bool isClosed(std::chrono::milliseconds deadline = testDeadline);

    /// Whether it is closed by now.
    bool isClosedNow() { return isClosed(std::chrono::milliseconds(0)); }

    /// Lets nobody wait for it any more.
    void shutDown();

    /// Closes it with a reset, so that nothing lingers.
    void reset();

    int descriptor() const { return mSocket; }

private:
    struct AcceptedSocket
    {
        int number;
    };
    ZmtpPeer(uint16_t port, AcceptedSocket socket) : mPort(port), mSocket(socket.number) {}

    std::string fittingType() const;
    bool fill(std::chrono::steady_clock::time_point end);

    uint16_t mPort;
    int mSocket;
    std::string mReceived; // and not read
    bool mIsEnded = false;
};

/// A server that shares no code with the broker, nor with libzmq: a port of its own at which clients connect.
class ZmtpServer
{
public:
    /// @param receiveBuffer bytes that the kernel takes for each connection; 0: as usual
    explicit ZmtpServer(int receiveBuffer = 0);
    ~ZmtpServer();

    ZmtpServer(const ZmtpServer&) = delete;
    ZmtpServer& operator=(const ZmtpServer&) = delete;

    std::string endpoint() const;

    /// The next client; null at the deadline.
    std::unique_ptr<ZmtpPeer> accept(std::chrono::milliseconds deadline = testDeadline);

    bool hasClient() { return accept(std::chrono::milliseconds(0)) != nullptr; }

private:
    int mSocket;
};

#endif
