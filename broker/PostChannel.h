#ifndef BROKER_POSTCHANNEL_H
#define BROKER_POSTCHANNEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <zmq.hpp>

#include "broker/Clock.h"
#include "broker/ConnectionMonitor.h"

/// The socket on which posts arrive, and what is known about posts that are still under way.
///
/// Posts and requests travel on two connections, so a request can overtake the posts that its client made
/// before it. To answer requests in the client's order, the broker takes in first what is under way. That can
/// be seen: the kernel counts the bytes that have arrived on each connection, libzmq tells for each frame on
/// which connection it came, and what is in the one count and not in the other is still on its way through
/// libzmq, or is the front part of a message whose rest is yet to come.
class PostChannel
{
public:
    PostChannel(zmq::context_t& context, const std::string& endpoint);

    struct Post
    {
        std::optional<std::string> text; ///< nothing: it was too long
    };

    /// The next post, if one is there.
    std::optional<Post> receive();

    /// Takes note of connections made and closed. True if one has completed its handshake.
    bool updateConnections();

    /// Whether every byte that has arrived has come out of receive().
    bool allTakenIn();

    /// Stops waiting for what allTakenIn() found missing: it did not come within the bound.
    void writeOffMissing();

    /// When the latest post came, and how many bytes have come without a pause before it.
    TimePoint lastArrival() const { return mLastArrival; }
    uint64_t burstBytes() const { return mBurstBytes; }

    int peers() const { return mMonitor.peers(); }
    zmq::socket_t& pollable() { return mSocket; }
    zmq::socket_t& pollableConnections() { return mMonitor.pollable(); }

private:
    struct Connection
    {
        uint64_t accounted;      ///< bytes of the handshake and of all frames received
        bool writtenOff = false; ///< not waited for until its next message
    };

    void account(zmq::message_t& frame);
    void noteArrival(uint64_t bytes);

    zmq::socket_t mSocket;
    ConnectionMonitor mMonitor;
    std::map<int, Connection> mConnections; // by descriptor
    TimePoint mLastArrival{};
    uint64_t mBurstBytes = 0;
};

#endif
