#ifndef BROKER_REQUESTCHANNEL_H
#define BROKER_REQUESTCHANNEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "broker/ConnectionMonitor.h"
#include "broker/Sockets.h"
#include "broker/Unfinished.h"

/// The socket on which requests arrive and are answered.
class RequestChannel
{
public:
    RequestChannel(zmq::context_t& context, const std::string& endpoint, const Limits& limits,
                   Refusals& refusals);

    struct Request
    {
        std::string connection;          ///< whom to answer
        std::optional<std::string> text; ///< nothing: it was too long, or its envelope was not a request's
        bool tooLong = false;
    };

    /// The next request, if one is there.
    std::optional<Request> receive();

    /// A connection that has gone by now gets nothing, silently. So does one that leaves too many replies
    /// unread.
    void reply(const std::string& connection, const std::string& text);

    /// Takes note of connections made and closed, and returns those that have spoken and are closed now.
    std::vector<std::string> updateConnections();

    /// Whether this connection is open, as far as that has been noted, and nobody else has spoken on its
    /// descriptor since.
    bool isOpen(const std::string& connection) const { return mSpeakers.count(connection) != 0; }

    /// Cuts off who sends a message that does not end. True if that is to be done again soon.
    bool cutOffEndless();

    /// Takes over changed limits.
    void applyLimits() { Sockets::setLimits(mSocket, mLimits); }

    /// How long what was sent may take to go out after the end.
    void setLinger(std::chrono::milliseconds time) { Sockets::setLinger(mSocket, time); }

    int peers() const { return mMonitor.peers(); }
    std::size_t connections() const { return mMonitor.connections(); }
    zmq::socket_t& pollable() { return mSocket; }
    int connectionsDescriptor() { return mMonitor.descriptor(); }

private:
    struct Peer
    {
        std::string connection; ///< that spoke last; empty: has not spoken yet
        Unfinished unfinished;
        uint64_t replied = 0; ///< bytes handed over, and of the replies that are waiting for that
    };

    bool receiveFrame(zmq::message_t& frame, bool& more, uint64_t& bytes);
    void noteConnections();
    bool hasRoomFor(const std::string& reply, int descriptor);
    void noteSpeaker(int descriptor, Peer& peer, const std::string& connection);
    bool forgetSpeaker(int descriptor, const Peer& peer);

    const Limits& mLimits;
    Refusals& mRefusals;
    zmq::socket_t mSocket;
    ConnectionMonitor mMonitor;
    std::map<int, Peer> mPeers;           // by descriptor
    std::map<std::string, int> mSpeakers; // the same, of those who have spoken: descriptor by connection
    std::vector<std::string> mClosed;     // since updateConnections() was called last
    Unfinished::Turn mTurn;
};

#endif
