#ifndef BROKER_CONNECTIONMONITOR_H
#define BROKER_CONNECTIONMONITOR_H

#include <optional>
#include <string>
#include <zmq.hpp>

/// What libzmq tells about the connections of one socket.
class ConnectionMonitor
{
public:
    struct Event
    {
        enum class Kind
        {
            Accepted,
            HandshakeDone, ///< libzmq does not say on which descriptor
            Closed,
            Other,
        };
        Kind kind;
        int descriptor; ///< of the connection, for Accepted and Closed
    };

    /// @param socket must not be bound yet, and must outlive the monitor
    /// @param name   unique within the context
    ConnectionMonitor(zmq::context_t& context, zmq::socket_t& socket, const std::string& name);
    ~ConnectionMonitor();

    ConnectionMonitor(const ConnectionMonitor&) = delete;
    ConnectionMonitor& operator=(const ConnectionMonitor&) = delete;

    /// The next event, if one is there. Events come in the order in which they happened, and before any
    /// message of the connection is received.
    std::optional<Event> next();

    /// Connections that have completed their handshake and are not closed, as far as next() has been read.
    int peers() const { return mPeers; }

    /// Readable when next() has something.
    zmq::socket_t& pollable() { return mEvents; }

private:
    void count(int event);

    zmq::socket_t& mMonitored;
    zmq::socket_t mEvents;
    int mPeers = 0;
};

#endif
