#ifndef BROKER_NOTIFYCHANNEL_H
#define BROKER_NOTIFYCHANNEL_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "broker/ConnectionMonitor.h"
#include "broker/Options.h"
#include "broker/Refusals.h"
#include "broker/Sockets.h"
#include "broker/Subscribers.h"
#include "broker/Unfinished.h"

/// The socket on which changes are published.
class NotifyChannel
{
public:
    NotifyChannel(zmq::context_t& context, const std::string& endpoint, const Limits& limits,
                  Refusals& refusals);

    /// @param revision of the state that the notification brings its receivers to
    void publish(const std::string& text, uint64_t revision);

    /// Takes the subscriptions that have arrived.
    void receiveSubscriptions();

    /// Whether any has been taken since the last call. They get all that is published from then on.
    bool takeSubscribed();

    void updateConnections();

    /// Cuts off who sends a message that does not end. True if that is to be done again soon.
    bool cutOffEndless();

    /// Takes over changed limits.
    void applyLimits();

    /// Of each subscriber that had to be cut off since the last call: the revision up to which it knows.
    std::vector<uint64_t> takeCutOff();

    /// From now on, nobody is waited for.
    void hurry() { mSubscribers.hurry(); }

    /// How long what was published may take to go out after the end.
    void setLinger(std::chrono::milliseconds time) { Sockets::setLinger(mSocket, time); }

    int peers() const { return mMonitor.peers(); }
    std::size_t connections() const { return mMonitor.connections(); }
    uint64_t published() const { return mPublished; }
    uint64_t cutOff() const { return mCutOff; }
    uint64_t lost() const { return mLost; } ///< notifications that did not reach those cut off
    zmq::socket_t& pollable() { return mSocket; }
    int connectionsDescriptor() { return mMonitor.descriptor(); }

private:
    struct Peer
    {
        std::size_t subscribedBytes = 0;
        Unfinished unfinished;
    };

    void take(const zmq::message_t& frame, int descriptor, Peer& peer);
    void relieve();
    void cutOff(const Subscribers::Hopeless& hopeless);

    const Limits& mLimits;
    Refusals& mRefusals;
    zmq::socket_t mSocket;
    ConnectionMonitor mMonitor;
    Subscribers mSubscribers;
    std::map<int, Peer> mPeers; // by descriptor
    Unfinished::Turn mTurn;
    bool mSubscribed = false; // since takeSubscribed() was called last
    std::vector<uint64_t> mKnownByCutOff;
    uint64_t mPublished = 0;
    uint64_t mCutOff = 0;
    uint64_t mLost = 0;
};

#endif
