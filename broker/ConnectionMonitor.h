#ifndef BROKER_CONNECTIONMONITOR_H
#define BROKER_CONNECTIONMONITOR_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <zmq.hpp>

#include "broker/Options.h"
#include "broker/Refusals.h"

/// What libzmq tells about the connections of one socket. There are no more of them than the limit: should
/// the descriptors run out, libzmq's I/O thread would spin. For each that comes beyond it, the oldest one is
/// cut off that has not spoken yet; so a flood of silent ones only replaces itself. When all have spoken, it
/// is the newest.
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

    /// Connections that are not closed, as far as next() has been read.
    std::size_t connections() const { return mOpen.size(); }

    /// Those of them that have completed their handshake. Which one has, libzmq does not say; should the
    /// wrong one be taken for it, that is forgotten with their ends, and does not add up.
    int peers() const { return static_cast<int>(mOpen.size() - mShaking.size()); }

    /// Becomes readable when next() has something, and stays so at least until next() has nothing more.
    int descriptor() const { return mDescriptor; }

private:
    using ByAge = std::map<uint64_t, int>; // number and descriptor of connections

    void accept(int descriptor);
    void close(int descriptor, bool failed);
    void handshakeDone();
    ByAge::iterator newestThatHasShakenHands();
    void dropSpoken();
    void warnNearLimit();

    std::string mName;
    const Limits& mLimits;
    Refusals& mRefusals;
    zmq::socket_t& mMonitored;
    zmq::socket_t mEvents;
    int mDescriptor = -1;
    uint64_t mAccepted = 0;
    bool mIsNearLimit = false;
    TimePoint mNextWarning{};
    std::map<int, uint64_t> mOpen; // by descriptor: the number of the connection
    ByAge mSilent;                 // those of them that have not spoken when last looked at
    ByAge mShaking;                // those that have not completed their handshake
    bool mHandshakeFailed = false; // of the connection whose end is told next
};

#endif
