#ifndef BRIDGE_UPLINK_H
#define BRIDGE_UPLINK_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "bridge/BridgeFile.h"
#include "bridge/BridgeOptions.h"
#include "bridge/Downlink.h"
#include "bridge/EventRing.h"
#include "bridge/TopicRecord.h"
#include "bridge/ValueBook.h"
#include "mqttlink/Backoff.h"
#include "mqttlink/MqttLink.h"
#include "mqttlink/Topics.h"

/// Brings the device's values and events to the server, over any number of connections. Never waits: the
/// caller polls and calls work().
///
/// Each connection is a session: it subscribes, sends the whole state, deletes what is out of date, and then
/// says that the device is online.
class Uplink final : private IMqttReceiver
{
public:
    /// @param options must outlive this object
    Uplink(const BridgeOptions& options, ValueBook& book);

    /// The options have changed: begins a new session. The caller reports the state anew.
    void restart(TimePoint now);

    /// Whether the values in the book are the device's. Nothing is sent before.
    void setHasState(bool has) { mHasState = has; }

    void addEvent(const std::string& name, const std::string& value);

    /// What the server wants to be posted: see Downlink.
    bool hasWork() const { return mDown.hasWork(); }
    Downlink::Batch nextBatch(TimePoint now) { return mDown.nextBatch(now); }
    void posted(const Downlink::Values& values) { mDown.posted(mTopics, values); }

    /// What to poll; -1: nothing.
    int descriptor() const { return mLink ? mLink->descriptor() : -1; }
    short wanted() const { return mLink ? mLink->wanted() : static_cast<short>(0); }

    /// When to call work(), whatever the poll says.
    TimePoint due(TimePoint now) const;

    /// @param events of the poll; 0: none
    void work(short events, TimePoint now);

    /// Says that the device goes offline, and disconnects.
    void close(TimePoint now);
    bool isClosed() const { return mStage == Stage::Closed; }

    bool isOnline() const { return mStage == Stage::Online; }

private:
    enum class Stage
    {
        Away, ///< waits for the next attempt
        Connecting,
        Subscribing, ///< waits for the server's answers
        Waiting,     ///< for the device's state
        Filling,     ///< sends the state
        Online,
        Closing, ///< waits until the server knows
        Closed,
    };

    /// A message that the server has not acknowledged.
    struct Sent
    {
        std::string topic; ///< of a deletion; else empty
        int64_t event = 0; ///< 0: none
        bool isOffline = false;
    };

    void onAccepted(unsigned receiveMaximum) override;
    void onSubscribed(bool isGranted) override;
    void onAcknowledged(int message, const std::string& refusal) override;
    void onMessage(const MqttLink::Received& message) override;

    void open(TimePoint now);
    void lost(const std::string& reason, TimePoint now);
    void leave();
    void advance(TimePoint now);
    void subscribe();
    void beginFilling();
    void fill(TimePoint now);
    void sendWhatIsDue(TimePoint now);
    void sendOnline(TimePoint now);
    void sendValues(TimePoint now);
    void sendBatch(TimePoint now);
    void sendBirth(TimePoint now);
    void sendEvents(TimePoint now);
    void sendAnswers();
    void sendValue(const std::string& key, const std::string& value);
    void sendDeletion(const std::string& topic);
    bool send(const MqttLink::Message& message) { return send(message, Sent()); }
    bool send(const MqttLink::Message& message, Sent sent);
    void keepFile(TimePoint now);

    bool isDocument() const { return mOptions.layout == BridgeOptions::Layout::Document; }
    std::size_t room() const { return mWindow > mUnderWay.size() ? mWindow - mUnderWay.size() : 0; }
    std::size_t roomForValues() const;
    std::string condition(bool isOnline) const;
    TimePoint valuesDue() const;
    std::size_t eventsUnderWay() const;

    const BridgeOptions& mOptions;
    ValueBook& mBook;
    Topics mTopics;
    BridgeFile mFile;
    TopicRecord mRecord;
    EventRing mRing;
    Downlink mDown;
    Backoff mBackoff;
    std::optional<MqttLink> mLink;
    Stage mStage = Stage::Away;
    bool mHasState = false;

    // ---- Of the session
    int64_t mSession = 0;
    TimePoint mNextAttempt{};
    TimePoint mDeadline{}; // of the stages before Online, and of Closing
    TimePoint mOnlineSince{};
    int64_t mSince = 0;      // the same in seconds since the Unix epoch
    std::size_t mWindow = 0; // messages that may be under way
    int mSubscriptionsLeft = 0;
    std::map<int, Sent> mUnderWay;
    std::string mLastFilled;
    bool mIsFirst = true; // nothing is filled yet
    std::set<std::string> mDeletions;
    std::map<std::string, std::string> mDescriptions; // that are to be sent
    TimePoint mNextOnline = TimePoint::max();
    bool mIsOvertaken = false; // by a session with a higher number
    int64_t mSequence = 0;     // in the layout Document
    TimePoint mNextBatch{};
    TimePoint mNextBirth{};
    bool mIsBirthWanted = false;
    double mEventAllowance = 0;
    TimePoint mAllowanceSince{};
    TimePoint mNextKeep{};
    unsigned mRefusals = 0; // of the session
};

#endif
