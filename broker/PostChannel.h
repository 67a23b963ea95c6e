#ifndef BROKER_POSTCHANNEL_H
#define BROKER_POSTCHANNEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <zmq.hpp>

#include "broker/Clock.h"
#include "broker/ConnectionMonitor.h"
#include "broker/Sockets.h"
#include "broker/Unfinished.h"

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
    PostChannel(zmq::context_t& context, const std::string& endpoint, const Limits& limits,
                Refusals& refusals);

    struct Post
    {
        std::optional<std::string> text; ///< nothing: it was too long
    };

    /// The next post, if one is there.
    std::optional<Post> receive();

    /// Takes note of connections made and closed. True if one has completed its handshake.
    bool updateConnections();

    /// Begins to wait for the posts that clients have made by now.
    void beginBarrier();

    /// Whether they have all come out of receive(), as far as can be known: on each connection everything
    /// that has arrived has been taken in, and after a long burst nothing more has come for `quiet`. A client
    /// that posts without a pause is waited for only as long as what came from it may still be from before.
    bool barrierReached(std::chrono::microseconds quiet);

    /// Gives up: what is missing did not come within the caller's bound, and is not waited for again until
    /// the connection's next message. That does not hold for a backlog, which is only being taken in slowly.
    void abandonBarrier();

    /// Cuts off who sends a message that does not end. True if that is to be done again soon.
    bool cutOffEndless();

    /// Takes over changed limits.
    void applyLimits() { Sockets::setLimits(mSocket, mLimits); }

    int peers() const { return mMonitor.peers(); }
    std::size_t connections() const { return mMonitor.connections(); }
    zmq::socket_t& pollable() { return mSocket; }
    int connectionsDescriptor() { return mMonitor.descriptor(); }

private:
    struct Peer
    {
        uint64_t accounted = 0; ///< bytes of the handshake and of all messages received
        TimePoint lastArrival{};
        uint64_t burst = 0; ///< bytes that came without a pause up to lastArrival

        Unfinished unfinished;

        // The barrier.
        bool awaited = false;
        bool writtenOff = false;
        uint64_t arrivedBefore = 0;  ///< bytes that had arrived when it began
        bool receivedSince = false;  ///< something has come out since it began
        unsigned messagesBehind = 0; ///< messages received after those bytes
        uint64_t heldBack = 0;       ///< bytes that the peer's kernel may have held back then
    };

    void noteConnections();
    void account(zmq::message_t& frame, bool more);
    static bool reached(int descriptor, const Peer& connection, std::chrono::microseconds quiet);

    const Limits& mLimits;
    Refusals& mRefusals;
    zmq::socket_t mSocket;
    ConnectionMonitor mMonitor;
    std::map<int, Peer> mConnections; // by descriptor
    Unfinished::Turn mTurn;
    bool mHandshakeDone = false; // since updateConnections() was called last
};

#endif
