#ifndef STATUSFLEET_DESK_H
#define STATUSFLEET_DESK_H

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "daemon/Clock.h"
#include "mqttlink/Backoff.h"
#include "mqttlink/MqttLink.h"

/// A connection to one server, as a session of subscriptions. A Desk drives it.
class DeskSession final : private IMqttReceiver
{
public:
    DeskSession(const ServerOptions& options, std::string host, std::string clientId);

    /// Begins to connect. Throws MqttError.
    /// @param topics what it subscribes to when it is connected
    void open(std::vector<std::string> topics);

    int descriptor() const { return mLink ? mLink->descriptor() : -1; }
    short wanted() const { return mLink ? mLink->wanted() : static_cast<short>(0); }

    /// Throws MqttError when the connection is lost.
    void work(short events);

    /// The server has taken the subscriptions.
    bool isReady() const { return mIsAccepted && mLeft == 0; }

    /// The server has sent all messages that it has retained. It sends them before a message that this
    /// session publishes; if it may not publish, they have all come when a second has passed without any.
    bool hasAll(TimePoint now);

    /// The messages that have come since the last call.
    std::vector<ReceivedMessage> take();

    /// @returns the message's number; nothing if it is longer than the server takes
    std::optional<int> publish(const MqttLink::Message& message) { return mLink->publish(message); }

    /// Nothing until the server has answered; then the reason of its refusal, or an empty text.
    std::optional<std::string> answerTo(int number) const;

    void close();

private:
    void onAccepted(unsigned receiveMaximum) override;
    void onSubscribed(bool isGranted) override;
    void onAcknowledged(int message, const std::string& refusal) override;
    void onMessage(const ReceivedMessage& message) override;

    const ServerOptions& mOptions;
    const std::string mHost;
    const std::string mClientId;
    const std::string mMark; // a topic of its own
    std::optional<MqttLink> mLink;
    std::vector<std::string> mTopics;
    bool mIsAccepted = false;
    bool mIsRefused = false;
    std::size_t mLeft = 0;
    std::optional<int> mMarkNumber;
    bool mHasMark = false;
    TimePoint mLastMessage{};
    std::map<int, std::string> mAnswers;
    std::vector<ReceivedMessage> mReceived;
};

/// The desk's connections to all servers of a fleet.
class Desk
{
public:
    using Take = std::function<void(const ReceivedMessage&)>;
    using Done = std::function<bool()>;

    /// @param options must outlive this object
    /// @param hosts   one or more servers
    /// @throws Failure
    Desk(const ServerOptions& options, const std::vector<std::string>& hosts);
    ~Desk();

    Desk(const Desk&) = delete;
    Desk& operator=(const Desk&) = delete;

    /// Connects, subscribes, and takes everything that the servers have retained.
    /// @throws Failure: Unreachable, or TimedOut
    void begin(const std::vector<std::string>& topics, const Take& take, TimePoint deadline);

    /// Takes messages until `done` returns true. Returns false at the deadline.
    /// @param isPersistent connects again after a loss, which is otherwise a Failure
    bool follow(const Take& take, const Done& done, TimePoint deadline, bool isPersistent = false);

    /// Publishes a message on each server, and returns when they have it.
    /// @throws Failure if one refuses it
    void publish(const MqttLink::Message& message, const Take& take, TimePoint deadline);

    /// Publishes a message where there is a connection now, and does not wait.
    void send(const MqttLink::Message& message);

private:
    struct Line
    {
        Line(const ServerOptions& options, const std::string& host);

        DeskSession session;
        Backoff backoff;
        TimePoint nextAttempt = TimePoint::max(); // while it is lost
        TimePoint since{};
    };

    void turn(const Take& take, TimePoint deadline, bool isPersistent);
    void work(Line& line, short events, bool isPersistent);
    bool all(const std::function<bool(Line&)>& condition);

    const ServerOptions& mOptions;
    std::vector<std::string> mTopics;
    std::deque<Line> mLines; // never moved: the connections refer to them
};

#endif
