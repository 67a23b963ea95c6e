#ifndef BROKER_POSTPORT_H
#define BROKER_POSTPORT_H

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "broker/Backlog.h"
#include "broker/ConnectionLimit.h"
#include "broker/OwnProbe.h"
#include "broker/PongWait.h"
#include "broker/PortEnvironment.h"
#include "broker/StartWait.h"
#include "broker/state/Posters.h"
#include "broker/wire/Port.h"

/// A connection on which a client posts.
class PostConnection : public Connection
{
public:
    PostConnection(Descriptor socket, Handshake::Kind kind, TimePoint now)
        : Connection(std::move(socket), kind, now), pongs(now)
    {
    }

    // ---- Barriers.
    PongWait pongs;
    uint64_t pingToSend = 0; ///< the barrier to send a PING for, once everything that has arrived is read; 0:
                             ///< none
    std::size_t bytesSincePong = 0;
    bool isTouched = false;             ///< something has come since then
    std::shared_ptr<OwnProbe> ownProbe; ///< null: never asked

    bool owesPong() const { return pongs.owes() || (ownProbe && ownProbe->owes()); }

    /// Whether a request waits for its PONG.
    bool isAwaited(TimePoint now) const
    {
        return pongs.isAwaited() || (ownProbe && ownProbe->isAwaited(now));
    }

    // ---- Start. Posts can arrive once the PING behind the subscription is answered.
    uint64_t number = 0; ///< in the order of arrival
    bool isSubscribed = false;
    StartWait startWait;

    /// Its client, as the poster of values; nobody until it posts something.
    Posters::Id poster = Posters::nobody;

    bool isReady = false; ///< to be read
    bool isHeavy = false; ///< its last read took long, or left much of an unfinished message
    Backlog backlog;      ///< of what is to be read
};

/// The port on which posts arrive.
///
/// Posts and requests travel on two connections, so a request can overtake the posts that its client made
/// before it. So the broker answers a request behind a barrier: it first takes in everything that has arrived
/// on post connections. Where much has come since the last PONG, more may be on its way, in the client's
/// kernel or its libzmq. So the broker sends a PING on that connection. The answer comes behind all posts
/// that the client had let go of, and the broker waits for it.
class PostPort : public Port<PostConnection>
{
public:
    using OnPost = std::function<void(PostConnection&, std::string_view)>;

    PostPort(const PortEnvironment& environment, OnPost onPost);

    /// Something can be read or written, or the connection has ended. Reading waits for takePosts().
    void serve(PostConnection& connection, uint32_t what);

    /// Reads from the connections in turn, until this time or until nothing is left. Stops after a part of
    /// the notification log's capacity, so that slow subscribers can be served. Leaves out heavy
    /// ones, unless a request waits for them.
    void takePosts(TimePoint end);

    /// Reads from those, behind takePosts(): requests are answered first. Takes its time even if others have
    /// used it up.
    void takeHeavyPosts(TimePoint end);
    bool hasHeavyPosts() const { return !mHeavy.empty(); }

    /// Whether connections wait to be read.
    bool hasPosts() const { return !mReady.empty() || !mHeavy.empty(); }

    using Concerns = std::function<bool(PostConnection&)>;

    /// Opens a barrier behind everything that clients have posted by now, and reads what has arrived of it.
    /// @param isSync waits also for connections that have received only little
    /// @param concerns whether a connection's posts are waited for. If not, it gets no PING: in the moment in
    /// which its client ends, a PING would reset the connection, and its last posts would be lost.
    uint64_t openBarrier(bool isSync, TimePoint now, const Concerns& concerns);

    /// Whether a "Sync" waits for the connection only briefly or not at all: nothing has come from it since
    /// its last PONG, or it has little patience left. Then a "Sync" of its own client probes it with a PING.
    static bool needsOwnProbe(const PostConnection& connection);

    /// Sends such a PING for this barrier.
    /// @returns the probe, which outlives the connection; null if there is nothing to wait for
    std::shared_ptr<const OwnProbe> askOwn(PostConnection& connection, uint64_t barrier, TimePoint now);

    /// Until when to wait at most for posts before the barrier; TimePoint::min() if all have come.
    /// @param opened when the barrier opened
    /// @param concerns tells of a PostConnection& whether its posts are waited for
    template <class MayConcern>
    TimePoint endOfWait(uint64_t barrier, bool isSync, TimePoint opened, MayConcern&& concerns) const
    {
        TimePoint end = TimePoint::min();
        for (PostConnection* connection : mAwaited)
        {
            const TimePoint endOfThis = connection->pongs.endFor(barrier, isSync, opened);
            if (endOfThis > end && concerns(*connection))
                end = endOfThis;
        }
        return end;
    }

    /// Whether data that had arrived before the barrier is still unread.
    /// @param concerns as above
    template <class MayConcern>
    bool isUnreadBefore(uint64_t barrier, MayConcern&& concerns) const
    {
        return std::any_of(mAwaited.begin(), mAwaited.end(),
                           [&](const PostConnection* connection)
                           { return connection->pongs.isUnreadBefore(barrier) && concerns(*connection); });
    }

    TimePoint due() const override;
    void doWhatIsDue(TimePoint now) override;

    /// Reads connections that have not yet shown that posts can arrive.
    void readStarting(TimePoint now);

    /// Connections that have not yet shown that posts can arrive: the number of the first one that is waited
    /// for, and of the first that was given up. Each is waited for only once.
    struct Unsubscribed
    {
        static constexpr uint64_t none = UINT64_MAX;
        uint64_t awaited = none;
        uint64_t givenUp = none;
    };

    /// Call this once in a round.
    Unsubscribed unsubscribed(TimePoint now);

    /// Counts what may let clients start: post connections that have come, gone, or become able to deliver
    /// posts.
    uint64_t startNews() const { return mStartNews; }

    /// Whether posts can arrive on the connection: its client has the subscription.
    static bool isSubscribed(const PostConnection& connection, TimePoint now);

    /// How many connections can deliver posts.
    std::size_t subscribed(TimePoint now) const;

    /// Closes a connection for want of memory. Posts that the client had not sent yet are lost.
    void closeForMemory(PostConnection& connection);

    /// How often posts were lost because a connection was closed here, for want of memory or because of an
    /// endless message. The broker cannot know whose posts they were. A connection that speaks another
    /// protocol is closed, too, but has not posted anything.
    uint64_t losses() const { return mLosses; }
    TimePoint lastLoss() const { return mLastLoss; }

    /// While the port is paused, it reads only what a barrier waits for.
    void pause(bool does);

private:
    std::size_t most() const override { return mLimit.most(); }
    void onFull() override { mLimit.full(); }
    bool isAdmitted(PostConnection& connection) override { return mGuard.admit(connection); }
    void onAccepted(PostConnection& connection) override;
    void onClose(PostConnection& connection) override;
    void read(PostConnection& connection, TimePoint now) override;

    void open(PostConnection& connection);
    void take(PostConnection& connection, FrameReader::Result result, const FrameReader::Item& item);
    void lose();
    void takePong(PostConnection& connection, std::string_view context, std::size_t behind, TimePoint now);
    void takeOwnPong(PostConnection& connection, uint64_t barrier, std::size_t behind, TimePoint now);
    void takeArrivals(const Concerns& concerns);
    void takeArrivals(const std::vector<PostConnection*>& connections, TimePoint end);
    void makeReady(PostConnection& connection);
    void takeSome(std::deque<PostConnection*>& connections, TimePoint end);
    bool hasMemory(bool isForHeavy) const;
    void want(PostConnection& connection, bool isForSync, bool wasRead, TimePoint now);
    void ping(PostConnection& connection, TimePoint now);
    void sendPing(PostConnection& connection);
    void awaitAnswer(PostConnection& connection);
    void update(PostConnection& connection) override;

    MemoryBudget& mBudget;
    const Limits& mLimits;
    Refusals& mRefusals;
    Guard& mGuard;
    OnPost mOnPost;
    ConnectionLimit mLimit;
    Poller mArrivals; // the same connections: for data that arrived after the broker's poller reported
    uint64_t mBarrier = 0;
    uint64_t mStartNews = 0;
    uint64_t mLosses = 0;
    TimePoint mLastLoss{};
    uint64_t mReceived = 0;                ///< bytes, on all connections
    uint64_t mMostReceived = 0;            ///< at the end of a turn
    std::deque<PostConnection*> mReady;    // to be read, in turn
    std::deque<PostConnection*> mHeavy;    // read after mReady; no request waits for them
    std::vector<PostConnection*> mUnread;  // data has arrived that there was no time to read
    std::vector<PostConnection*> mTouched; // data has come since their last PONG
    std::vector<PostConnection*> mAwaited; // their answers to a PING are awaited
    SharedPatience mPatience;
    bool mIsPaused = false;
    std::vector<char> mBuffer;
};

#endif
