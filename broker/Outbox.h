#ifndef BROKER_OUTBOX_H
#define BROKER_OUTBOX_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "broker/CommitTimes.h"
#include "broker/NotifyPort.h"
#include "broker/Options.h"
#include "broker/RequestPort.h"
#include "broker/state/DeviceState.h"
#include "broker/state/StateFile.h"

/// Everything that leaves the broker. Where the state is kept in a file, changes are committed first, then
/// published, then answered: nobody sees what a restart takes back.
class Outbox
{
public:
    /// All must outlive it. Loads what the file holds into the state.
    Outbox(const Options& options, DeviceState& state, NotifyPort& notify, RequestPort& requests);

    /// @param events how many the notification holds
    void publish(const std::string& notification, uint64_t events);
    void reply(RequestConnection& connection, Reply reply);

    /// Commits, publishes and replies. Without a file, all that has happened already.
    void settle();

    /// Whether names may be forgotten, see StateFile.
    bool mayForget() const { return !mStateFile || mStateFile->mayForget(); }

    /// A connection has gone.
    void forget(RequestConnection& connection);

    /// When something is to be written although nothing has changed.
    TimePoint due() const;
    void doWhatIsDue(TimePoint now);

    /// The last commit.
    void finish();

    /// Whether an earlier broker has served since the device was started, as far as the file tells.
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
    std::vector<Answer> mAnswers;
    CommitTimes mTimes;
};

#endif
