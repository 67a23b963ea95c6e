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

/// A peer of the broker that shares no code with the broker or libzmq: a TCP connection on which a test sends
/// what it likes, byte by byte.
class ZmtpPeer
{
public:
    static constexpr uint16_t requestPort = 5555;
    static constexpr uint16_t postPort = 5556;
    static constexpr uint16_t notifyPort = 5557;

    // ---- Messages of peers.

    /// The greeting of version 3, 64 bytes.
    static std::string greeting(char minorVersion = 1);

    /// A READY command.
    static std::string ready(const std::string& socketType);

    static std::string ping(const std::string& context);
    static std::string pong(const std::string& context);

    /// A subscription: as a command, and in the form of version 3.0.
    static std::string subscribe(const std::string& prefix);
    static std::string subscribe30(const std::string& prefix);
    static std::string cancel(const std::string& prefix);

    /// A request in one frame, with its delimiter.
    static std::string request(const std::string& text);

    /// A post, or any text, in one frame.
    static std::string message(const std::string& text) { return WireFrames::frame(text); }

    /// The bytes that the broker sends first on this port: greeting and READY.
    static std::string openingOf(uint16_t port);

    // ---- A connection.

    /// @param receiveBuffer bytes of its receive buffer in the kernel; 0: the default
    explicit ZmtpPeer(uint16_t port, int receiveBuffer = 0);

    /// The other end of a connection that a client has made.
    static std::unique_ptr<ZmtpPeer> accepted(int socket)
    {
        return std::unique_ptr<ZmtpPeer>(new ZmtpPeer(0, AcceptedSocket{socket}));
    }

    ~ZmtpPeer();

    ZmtpPeer(const ZmtpPeer&) = delete;
    ZmtpPeer& operator=(const ZmtpPeer&) = delete;

    /// Completes the handshake with the socket type that fits the port, and reads what the broker sends by
    /// itself. Returns false if that is wrong.
    bool shakeHands(char minorVersion = 1) { return shakeHandsAs(fittingType(), minorVersion); }
    bool shakeHandsAs(const std::string& socketType, char minorVersion = 1);

    /// Waits until everything is sent. Returns false when the broker has closed the connection.
    bool write(std::string_view bytes);

    /// Sends as much as fits without waiting. Returns the number of bytes.
    std::size_t writeSome(std::string_view bytes);

    /// Reads `count` bytes, or fewer at the deadline or the end.
    std::string read(std::size_t count, std::chrono::milliseconds deadline = testDeadline);

    /// The next whole frame; nothing at the deadline or the end.
    std::optional<WireFrames::Frame> readFrame(std::chrono::milliseconds deadline = testDeadline);

    /// The frames of the next message. Skips commands, but answers a PING.
    std::optional<std::vector<std::string>> receive(std::chrono::milliseconds deadline = testDeadline);

    /// The next message as one text; nothing at the deadline or the end.
    std::optional<std::string> receiveText(std::chrono::milliseconds deadline = testDeadline);

    /// Sends a request and returns the answer's text; empty at the deadline or the end.
    std::string ask(const std::string& request);

    /// Whether the broker closes it within the deadline. Discards bytes that arrive before.
    bool isClosed(std::chrono::milliseconds deadline = testDeadline);

    /// Whether it is closed already.
    bool isClosedNow() { return isClosed(std::chrono::milliseconds(0)); }

    /// Shuts the socket down, which ends any wait for it.
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
    std::string mReceived; // but not read yet
    bool mIsEnded = false;
};

/// A server on a free port for clients to connect to. It shares no code with the broker or libzmq.
class ZmtpServer
{
public:
    /// @param receiveBuffer bytes of each connection's receive buffer; 0: the default
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
