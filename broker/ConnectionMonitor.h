#ifndef BROKER_CONNECTIONMONITOR_H
#define BROKER_CONNECTIONMONITOR_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <zmq.hpp>

#include "broker/Options.h"
#include "broker/Refusals.h"

/// What libzmq tells about the connections of one socket. Connections beyond the limit are cut off as they
/// come: should the descriptors run out, libzmq's I/O thread would spin.
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
    ConnectionMonitor(zmq::context_t& context, zmq::socket_t& socket, const std::string& name,
                      const Limits& limits, Refusals& refusals);
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
    void accept(int descriptor);

    std::string mName;
    const Limits& mLimits;
    Refusals& mRefusals;
    zmq::socket_t& mMonitored;
    zmq::socket_t mEvents;
    std::set<int> mOpen; // descriptors
    int mPeers = 0;
};

#endif
