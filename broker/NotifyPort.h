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
/// A notification stands once, in a log. Each subscriber is sent the log from its own position on, as fast as
/// it takes it. The log is bounded: a subscriber that is too far back falls behind. It gets the rest of the
/// message that it is in; when it takes bytes again, the latest values of the keys that changed meanwhile;
/// then it follows the log again. Nothing waits for it. Events in between are lost, and counted.
class NotifyPort : public Port<NotifyConnection>
{
public:
    /// @param state must outlive it
    NotifyPort(const PortEnvironment& environment, const DeviceState& state);

    void serve(NotifyConnection& connection, uint32_t what, TimePoint now);

    /// Puts a notification into the log; flush() sends it.
    /// @param revision of the state to which it brings its readers
    /// @param events how many it holds
    void publish(std::string_view message, uint64_t revision, uint64_t events);

    /// Sends every subscriber what it lacks, as far as the kernel takes it. Subscribers that are behind, or
    /// want only some messages, cost more; they have their turn one after another for a limited time. In
    /// between, the others are sent what they have room for by then.
    void flush(TimePoint now);

    /// When flush() is to be called although nothing has come.
    TimePoint due() const override { return mHasLeftOver ? TimePoint::min() : Port::due(); }

    /// Closes a subscriber for want of memory. It comes back.
    void closeForMemory(NotifyConnection& connection, TimePoint now);

    /// The rights of the connections have changed.
    /// Subscribers that may be told of more, or of less, get all that they may be told of.
    /// @param isToldAgain so do all that may not be told of everything: the rules have changed
    void takeOverRights(bool isToldAgain, TimePoint now);

    /// The revision of the state of which all subscribers have surely been told, also those that are to come
    /// back. All that has changed must have been published. Values that changed last up to this revision are
    /// not pointed to.
    uint64_t toldToAll(TimePoint now);

    /// Subscribers have to be told again of what has changed since such a revision.
    CatchUp& catchUp() { return mCatchUp; }

    /// Lets subscribers fall behind until the log holds at most so many bytes.
    void shortenLog(std::size_t bytes, TimePoint now);

    /// How much of the log is held for the slowest follower of those that have taken something lately.
    std::size_t backlog(TimePoint now) const;

    /// Whether something waits that the kernel did not take.
    bool hasOutput() const;

    /// Bytes that are to be sent to it, as far as it follows the log.
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
    bool sendMissed(NotifyConnection& connection, TimePoint now);
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
    std::vector<NotifyConnection*> mSubscribers; // the others cost nothing
    std::size_t mReaders = 0;
    NotificationLog mLog;
    std::size_t mLogCounted = 0;
    uint64_t mPublished = 0;
    uint64_t mMissedEvents = 0;
    uint64_t mFallenBehind = 0;
    std::size_t mNext = 0;     ///< whose turn it is
    bool mHasLeftOver = false; ///< could be sent something, but the time was over
    std::vector<char> mBuffer;
    NotificationFilter mFilter{mGuard, mLog};
};

#endif
