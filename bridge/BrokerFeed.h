#ifndef BRIDGE_BROKERFEED_H
#define BRIDGE_BROKERFEED_H

#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "brokerlink/LinkMonitor.h"
#include "brokerlink/NotificationSocket.h"
#include "daemon/Clock.h"

/// Gets the device's state.
class IFeedReceiver
{
public:
    using Members = BrokerProtocol::Members;

    /// The whole state; keys that are missing do not exist.
    virtual void onSnapshot(const Members& values) = 0;
    virtual void onValues(const Members& values) = 0;
    virtual void onEvents(const Members& events) = 0;
    virtual void onBrokerLost() = 0;

protected:
    ~IFeedReceiver() = default;
};

/// Follows all values and events of the broker, over every restart of it. Never waits: the caller polls and
/// calls work().
///
/// Each connection begins with a snapshot. The first one may be older than the subscription, so it is taken
/// again with the first notification.
class BrokerFeed
{
public:
    /// Throws zmq::error_t.
    explicit BrokerFeed(IFeedReceiver& receiver);

    /// What to poll for reading. Each becomes readable only once: call work() until hasMore() is false before
    /// the next poll.
    std::vector<int> descriptors();

    /// Takes what has arrived, at most some hundred messages.
    void work(TimePoint now);

    bool hasMore();

    /// When to call work(), whatever the poll says; TimePoint::max(): not at all.
    TimePoint due() const { return mAsked ? mAsked->deadline : TimePoint::max(); }

    /// Takes the snapshot anew.
    void askAgain(TimePoint now) { ask(now); }

private:
    struct Question
    {
        zmq::socket_t socket;
        TimePoint deadline;
        BrokerProtocol::Members since; // values that were notified since the question
    };

    void takeLinkEvents(TimePoint now);
    void takeNotifications(TimePoint now);
    void take(const BrokerProtocol::Notification& notification, TimePoint now);
    void takeAnswer(TimePoint now);
    void ask(TimePoint now);

    IFeedReceiver& mReceiver;
    zmq::context_t mContext;
    NotificationSocket mNotifications;
    LinkMonitor mMonitor;
    std::optional<Question> mAsked;
    bool mIsUp = false;
    bool mIsFirst = false; // the next notification is the connection's first
};

#endif
