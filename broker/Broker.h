#ifndef BROKER_BROKER_H
#define BROKER_BROKER_H

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include <zmq.hpp>

#include "broker/CatchUp.h"
#include "broker/DeviceState.h"
#include "broker/NotifyChannel.h"
#include "broker/Options.h"
#include "broker/PostChannel.h"
#include "broker/Refusals.h"
#include "broker/RequestChannel.h"
#include "broker/StartupGate.h"
#include "broker/StateFile.h"
#include "broker/Statistics.h"
#include "broker/Supervisor.h"

/// The broker: takes posts, answers requests, publishes changes. All on the thread that calls it.
class Broker
{
public:
    /// How long a request waits for posts that are visibly under way, at most.
    static constexpr std::chrono::milliseconds longestQueryWait{100};
    static constexpr std::chrono::milliseconds longestSyncWait{1000};

    /// Binds the three ports and loads the state. Throws std::runtime_error if a port cannot be had.
    explicit Broker(const Options& options);

    /// Serves until `descriptor` is readable. What has not been answered by then is answered by the next
    /// call, or by finish().
    void serveUntil(int descriptor);

    /// Takes over the limits. Those of messages hold for connections that are made from now on.
    void setLimits(const Limits& limits);

    /// Takes in and answers what has been received, as far as that takes no longer than a second or so. The
    /// last call.
    void finish();

private:
    struct Announcement
    {
        std::string notification;
        uint64_t revision;
    };

    struct Reply
    {
        std::string connection;
        std::string text;
    };

    /// Where something has come in since the loop last waited.
    struct Ready
    {
        bool posts = false;
        bool requests = false;
        bool subscriptions = false;
    };

    bool waitForWork();
    std::chrono::milliseconds untilNextTask() const;
    void doWhatIsDue();
    bool isCommitDue() const;
    void takePosts();
    void apply(const PostChannel::Post& post);
    void setSystemTime(uint32_t seconds);
    void announce(const std::string& notification);
    void announce(const StatusMap& changes);
    void settle();
    void catchUpSubscribers();
    void updateConnections();
    void serveRequests();
    void takeRequests();
    bool awaitPostsBeforeRequests();
    bool awaitPosts(std::chrono::milliseconds bound);
    void reply();
    std::optional<std::string> answer(const RequestChannel::Request& request);
    std::string refuse(const RequestChannel::Request& request);
    std::string statistics();
    void acknowledge(const std::string& connection);
    void releaseStarted();

    Options mOptions;
    Refusals mRefusals;
    zmq::context_t mContext;
    RequestChannel mRequests;
    PostChannel mPosts;
    NotifyChannel mNotify;
    DeviceState mState;
    std::optional<StateFile> mStateFile;
    StartupGate mStartup{[this](const std::string& connection) { return mRequests.isOpen(connection); }};
    CatchUp mCatchUp;
    Supervisor mSupervisor;

    std::vector<Announcement> mAnnouncements; // to be published when the changes are kept
    std::size_t mAnnouncedBytes = 0;
    std::vector<Reply> mReplies;                        // the same
    std::deque<RequestChannel::Request> mRequestsTaken; // not answered yet
    bool mPostsAwaited = false;                         // those before the requests taken
    Ready mReady;
    int mInterrupt = -1; // the descriptor that ends serveUntil()
    TimePoint mEndOfWaits = TimePoint::max();
    bool mSubscribersWait = false; // for what they missed
    TimePoint mNextCatchUp{};
    TimePoint mNextHeartbeat{};
    TimePoint mNextLook{};
    TimePoint mNextMoment{};

    const TimePoint mStarted = Clock::now();
    uint64_t mPostCount = 0;
    std::map<std::string_view, uint64_t> mRequestCounts;
    Durations mLoop;
};

#endif
