#ifndef BROKER_OUTBOX_H
#define BROKER_OUTBOX_H

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "broker/CommitTimes.h"
#include "broker/NotifyPort.h"
#include "broker/Options.h"
#include "broker/RequestPort.h"
#include "broker/state/DeviceState.h"
#include "broker/state/StateFile.h"

/// Everything that leaves the broker. With a state file, changes are committed first, then published, then
/// answered. So no client sees a change that a restart takes back.
class Outbox
{
public:
    /// All references must outlive this object. Loads the content of the file into the state.
    Outbox(const Options& options, DeviceState& state, NotifyPort& notify, RequestPort& requests);

    /// @param events how many events the notification holds
    void publish(const std::string& notification, uint64_t events);
    void reply(RequestConnection& connection, Reply reply);

    /// Whether so much waits for the commit that nothing more should be answered before.
    bool isFull() const;

    /// Commits, publishes and replies. Without a file, nothing is left to do: publish() and reply() act at
    /// once.
    void settle();

    /// Whether names may be forgotten, see StateFile.
    bool mayForget() const { return !mStateFile || mStateFile->mayForget(); }

    /// The connection has gone.
    void forget(RequestConnection& connection);

    /// When to write although nothing has changed.
    TimePoint due() const;
    void doWhatIsDue(TimePoint now);

    /// The last commit.
    void finish();

    /// Whether the file shows an earlier broker since the device was started.
    bool isRestart() const { return mStateFile && mStateFile->isOfThisBoot(); }

    uint64_t commits() const { return mStateFile ? mStateFile->commits() : 0; }
    uint64_t errors() const { return mStateFile ? mStateFile->errors() : 0; }

private:
    struct Notification
    {
        std::string text;
        uint64_t revision;
        uint64_t events;
    };

    struct Answer
    {
        RequestConnection* connection;
        Reply reply;
    };

    DeviceState& mState;
    NotifyPort& mNotify;
    RequestPort& mRequests;
    std::optional<StateFile> mStateFile;
    std::vector<Notification> mNotifications;
    std::size_t mBytes = 0; ///< of the notifications
    std::deque<Answer> mAnswers;
    std::size_t mAnswerBytes = 0; ///< of these and of their first pieces, which are produced when they leave
    CommitTimes mTimes;
};

#endif
