#include "bridge/BrokerFeed.h"

#include <utility>

#include "brokerlink/Messages.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace
{

constexpr std::chrono::seconds patience{5};

bool isReadable(zmq::socket_t& socket)
{
    return (socket.get(zmq::sockopt::events) & ZMQ_POLLIN) != 0;
}

} // namespace

BrokerFeed::BrokerFeed(IFeedReceiver& receiver)
    : mReceiver(receiver), mContext(1), mNotifications(mContext),
      mMonitor(mContext, mNotifications.socket(), "notifications")
{
    mNotifications.connect();
}

std::vector<int> BrokerFeed::descriptors()
{
    std::vector<int> all{mNotifications.socket().get(zmq::sockopt::fd),
                         mMonitor.socket().get(zmq::sockopt::fd)};
    if (mAsked)
        all.push_back(mAsked->socket.get(zmq::sockopt::fd));
    return all;
}

bool BrokerFeed::hasMore()
{
    return isReadable(mNotifications.socket()) || isReadable(mMonitor.socket()) ||
           (mAsked && isReadable(mAsked->socket));
}

void BrokerFeed::work(TimePoint now)
{
    takeLinkEvents(now);
    takeNotifications(now);
    takeAnswer(now);
    if (mAsked && now >= mAsked->deadline)
        ask(now);
}

void BrokerFeed::takeLinkEvents(TimePoint now)
{
    while (const std::optional<bool> isUp = mMonitor.receiveIfAny())
    {
        if (std::exchange(mIsUp, *isUp) && !*isUp)
        {
            OV_LOG(2, "The broker is gone");
            mAsked.reset();
            mReceiver.onBrokerLost();
        }
        else if (*isUp)
        {
            mIsFirst = true;
            ask(now);
        }
    }
}

void BrokerFeed::takeNotifications(TimePoint now)
{
    constexpr int most = 500;
    for (int i = 0; i < most; ++i)
    {
        const std::optional<BrokerProtocol::Notification> notification = mNotifications.receiveIfAny();
        if (!notification)
            return;
        take(*notification, now);
    }
}

void BrokerFeed::take(const BrokerProtocol::Notification& notification, TimePoint now)
{
    using Kind = BrokerProtocol::Notification::Kind;
    if (std::exchange(mIsFirst, false))
        ask(now);
    if (notification.kind == Kind::EventUpdate)
        mReceiver.onEvents(notification.members);
    if (notification.kind != Kind::StatusUpdate)
        return;
    if (mAsked)
    {
        for (const auto& [key, value] : notification.members)
            mAsked->since.insert_or_assign(key, value);
    }
    mReceiver.onValues(notification.members);
}

// Each question has a connection of its own: on an old one, the broker may have sent an empty answer to wake
// a client that it takes for stuck.
void BrokerFeed::ask(TimePoint now)
{
    BrokerProtocol::Members since = mAsked ? std::move(mAsked->since) : BrokerProtocol::Members();
    mAsked.emplace(
        Question{zmq::socket_t(mContext, zmq::socket_type::req), now + patience, std::move(since)});
    mAsked->socket.set(zmq::sockopt::linger, 0);
    mAsked->socket.connect(BrokerProtocol::requestEndpoint);
    mAsked->socket.send(zmq::buffer(BrokerProtocol::writeGetClientInfo()), zmq::send_flags::dontwait);
}

// Values that were notified since the question may be newer than the answer. If they are older, the newer
// ones are notified next.
void BrokerFeed::takeAnswer(TimePoint now)
{
    if (!mAsked || !isReadable(mAsked->socket))
        return;
    const std::string answer = Messages::receive(mAsked->socket).value_or("");
    if (answer.empty())
        return ask(now);
    std::optional<BrokerProtocol::Members> values = BrokerProtocol::readMapReply(answer);
    if (!values)
    {
        OV_LOG(2, "The broker's answer cannot be read");
        mAsked->deadline = now + patience;
        return;
    }
    for (const auto& [key, value] : mAsked->since)
        values->insert_or_assign(key, value);
    mAsked.reset();
    mReceiver.onSnapshot(*values);
}
