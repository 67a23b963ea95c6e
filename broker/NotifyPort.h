#ifndef BROKER_NOTIFYPORT_H
#define BROKER_NOTIFYPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "broker/CatchUp.h"
#include "broker/ConnectionLimit.h"
#include "broker/NotificationFilter.h"
#include "broker/NotifyConnection.h"
#include "broker/PortEnvironment.h"
#include "broker/SendBuffers.h"
#include "broker/state/DeviceState.h"
#include "broker/wire/NotificationLog.h"
#include "broker/wire/Port.h"

/// The port on which changes are published.
///
/// A log holds each notification once. Each subscriber is sent the log from its own position on, as fast as
/// it reads. The log is bounded, so a subscriber that is too far back falls behind. It first gets the rest of
/// its current message. When it reads again, it gets the latest values of the keys that changed meanwhile,
/// then it follows the log again. Nothing waits for it. Events in between are lost, and counted.
class NotifyPort : public Port<NotifyConnection>
{
public:
    /// @param state must outlive this object
    NotifyPort(const PortEnvironment& environment, const DeviceState& state);

    void serve(NotifyConnection& connection, uint32_t what, TimePoint now);

    /// Puts a notification into the log; flush() sends it.
    /// @param revision the state's revision once the message is read
    /// @param events how many events the message holds
    void publish(std::string_view message, uint64_t revision, uint64_t events);

    /// Sends every subscriber what it lacks, as far as the kernel has room. Subscribers that are behind, or
    /// want only some messages, cost more. They take turns, for a limited time. In between, the other
    /// subscribers are sent whatever they have room for by then.
    void flush(TimePoint now);

    /// When to call flush() although nothing has arrived.
    TimePoint due() const override { return mHasLeftOver ? TimePoint::min() : Port::due(); }

    /// Closes a subscriber for want of memory. It will come back.
    void closeForMemory(NotifyConnection& connection, TimePoint now);

    /// The rights of the connections have changed. Subscribers that may now see more, or less, get everything
    /// that they may see.
    /// @param isToldAgain every restricted subscriber gets everything anew: the rules have changed
    void takeOverRights(bool isToldAgain, TimePoint now);

    /// The revision that every subscriber has certainly received, including subscribers that will come back.
    /// All changes must have been published. This port then holds no pointer to a value whose last change is
    /// at or before that revision.
    uint64_t toldToAll(TimePoint now);

    /// The record of subscribers that must catch up.
    CatchUp& catchUp() { return mCatchUp; }

    /// Lets subscribers fall behind until the log holds at most this many bytes.
    void shortenLog(std::size_t bytes, TimePoint now);

    /// Bytes of the log held for the slowest follower that has read something lately.
    std::size_t backlog(TimePoint now) const;

    /// Whether output waits that the kernel did not take.
    bool hasOutput() const;

    /// Bytes of the log that are still to be sent to the connection.
    uint64_t queuedBytes(const NotifyConnection& connection) const;

    bool hasSubscribers() const { return openPeers() != 0; }

    const NotificationLog& log() const { return mLog; }
    uint64_t published() const { return mPublished; }
    uint64_t missedEvents() const { return mMissedEvents; }
    uint64_t fallenBehind() const { return mFallenBehind; }

private:
    std::size_t most() const override { return mLimit.most(); }
    void onFull() override { mLimit.full(); }
    bool isAdmitted(NotifyConnection& connection) override { return mGuard.admit(connection); }
    void onAccepted(NotifyConnection& connection) override;
    void onClose(NotifyConnection& connection) override;
    void read(NotifyConnection& connection, TimePoint now) override;

    void takeCommand(NotifyConnection& connection, std::string_view command, TimePoint now);
    void subscribe(NotifyConnection& connection, std::string_view prefix, TimePoint now);
    void cancel(NotifyConnection& connection, std::string_view prefix);
    void becomeIdle(NotifyConnection& connection);
    void flushFollowers(TimePoint now);
    void refillFollowers(TimePoint now);
    void flushOthers(TimePoint now);
    bool flushSome(NotifyConnection::State state, std::size_t& next, TimePoint now, TimePoint end);
    bool isToBeSent(const NotifyConnection& connection) const;
    void send(NotifyConnection& connection, TimePoint now);
    bool sendWhatItLacks(NotifyConnection& connection, TimePoint now);
    void noteReading(NotifyConnection& connection);
    void resizeBuffers(std::size_t subscribers);
    void resizeBuffer(NotifyConnection& connection) const;
    bool sendLog(NotifyConnection& connection, TimePoint now);
    bool sendMatching(NotifyConnection& connection);
    void copyFiltered(NotifyConnection& connection, NotificationLog::Position end);
    void tellAgain(NotifyConnection& connection, TimePoint now);
    void sendFirst(NotifyConnection& connection, TimePoint now);
    bool sendMissed(NotifyConnection& connection, TimePoint now);
    static bool flushMissed(NotifyConnection& connection, TimePoint now);
    const DeviceState::Value* nextMissed(const NotifyConnection& connection) const;
    std::size_t collectMissed(NotifyConnection& connection, const DeviceState::Value* value);
    void follow(NotifyConnection& connection);
    void lookAtTold(NotifyConnection& connection) const;
    bool finishMessage(NotifyConnection& connection);
    void lackMemory(NotifyConnection& connection, TimePoint now);
    bool fallBehind(NotifyConnection& connection);
    void moveTo(NotifyConnection& connection, NotificationLog::Position position);
    void update(NotifyConnection& connection) override;

    MemoryBudget& mBudget;
    Refusals& mRefusals;
    Guard& mGuard;
    const DeviceState& mState;
    ConnectionLimit mLimit;
    CatchUp mCatchUp;
    SendBuffers mSendBuffers;
    std::vector<NotifyConnection*> mSubscribers; // connections without a subscription cost nothing
    std::size_t mReaders = 0;
    NotificationLog mLog;
    std::size_t mLogCounted = 0;
    uint64_t mPublished = 0;
    uint64_t mMissedEvents = 0;
    uint64_t mFallenBehind = 0;
    Clock::duration mFirstTime{};  ///< spent on first values since the last flush()
    std::size_t mNextFollower = 0; ///< the subscriber whose turn is next
    std::size_t mNextBehind = 0;   ///< the same of those that are behind
    bool mHasLeftOver = false;     ///< more could be sent, but the time was up
    std::vector<char> mBuffer;
    NotificationFilter mFilter{mGuard, mLog};
};

#endif
