#ifndef BROKER_POSTPORT_H
#define BROKER_POSTPORT_H

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
    uint64_t pingToSend = 0; ///< for which barrier, when all that has arrived is read; 0: none
    std::size_t bytesSincePong = 0;
    bool isTouched = false;             ///< something has come since
    std::shared_ptr<OwnProbe> ownProbe; ///< null: never asked

    bool owesPong() const { return pongs.owes() || (ownProbe && ownProbe->owes()); }

    // ---- Start. Posts can arrive when the PING behind the subscription is answered.
    uint64_t number = 0; ///< in the order of arrival
    bool isSubscribed = false;
    StartWait startWait;

    /// Its client, for the values that it posts; nobody until it posts something.
    Posters::Id poster = Posters::nobody;

    bool isReady = false; ///< to be read
    bool isHeavy = false; ///< reading it took long
    Backlog backlog;      ///< of what is to be read
};

/// The port on which posts arrive.
///
/// Posts and requests travel on two connections, so a request can overtake the posts that its client made
/// before it. A request is answered behind a barrier, therefore. For that, what has arrived on post
/// connections is taken in. Where much has come since the last look, more may be on its way: in the client's
/// kernel, or in its libzmq. So the broker sends a PING there, whose answer comes behind all that the client
/// had let go of, and waits for the answer.
class PostPort : public Port<PostConnection>
{
public:
    using OnPost = std::function<void(PostConnection&, std::string_view)>;

    PostPort(const PortEnvironment& environment, OnPost onPost);

    /// Something can be read, or written, or has ended. Reading waits for takePosts().
    void serve(PostConnection& connection, uint32_t what);

    /// Reads from the connections in turn, as long as there is something, until this time. No more than a
    /// part of what the log of notifications holds, so that slow subscribers can be looked after.
    void takePosts(TimePoint end);

    /// Connections wait to be read.
    bool hasPosts() const { return !mReady.empty() || !mHeavy.empty(); }

    /// Opens a barrier behind all that clients have posted by now, and takes in what has arrived of it.
    /// @param isSync waits also for connections from which only little has come
    uint64_t openBarrier(bool isSync, TimePoint now);

    /// A "Sync" does not wait for it, or only briefly: nothing has come from it since its last PONG, or it
    /// has little patience left. Its own client may ask it by a PING of its own.
    static bool needsOwnProbe(const PostConnection& connection);

    /// Asks it, for this barrier.
    /// @returns the probe, which outlives the connection; null if there is nothing to wait for
    std::shared_ptr<const OwnProbe> askOwn(PostConnection& connection, uint64_t barrier, TimePoint now);

    /// Until when what was posted before is waited for at the longest; TimePoint::min() if it has all come.
    /// @param opened when the barrier was
    TimePoint endOfWait(uint64_t barrier, bool isSync, TimePoint opened) const;

    /// Of what had arrived before the barrier not all is read.
    bool isUnreadBefore(uint64_t barrier) const;

    TimePoint due() const override;
    void doWhatIsDue(TimePoint now) override;

    /// Reads connections that have not shown yet that posts can arrive.
    void readStarting(TimePoint now);

    /// Of connections that have not shown yet that posts can arrive: the number of the first that is waited
    /// for, and of the first that was waited for in vain. One that does not show it is waited for only once.
    struct Unsubscribed
    {
        static constexpr uint64_t none = UINT64_MAX;
        uint64_t awaited = none;
        uint64_t givenUp = none;
    };

    /// Call it once in a round.
    Unsubscribed unsubscribed(TimePoint now);

    /// Counts what may let clients start: connections that have come, gone, or shown it.
    uint64_t startNews() const { return mStartNews; }

    /// How many connections have shown it.
    std::size_t subscribed(TimePoint now) const;

    /// Closes a connection for want of memory. Posts that it had not sent yet are lost.
    void closeForMemory(PostConnection& connection);

    /// How often posts were lost with a connection that was closed here, be it for want of memory or because
    /// a message did not end. Whose those were nobody knows. (What speaks another protocol is closed, too. It
    /// has not posted anything.)
    uint64_t losses() const { return mLosses; }
    TimePoint lastLoss() const { return mLastLoss; }

    /// While it is paused, nothing is read but what a barrier waits for.
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
    void takeArrivals();
    void takeArrivals(const std::vector<PostConnection*>& connections, TimePoint end);
    void makeReady(PostConnection& connection);
    void takeSome(std::deque<PostConnection*>& connections, TimePoint end, uint64_t most);
    void want(PostConnection& connection, bool isForSync, TimePoint now);
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
    Poller mArrivals; // the same connections: for what has arrived since the broker's poller reported
    uint64_t mBarrier = 0;
    uint64_t mStartNews = 0;
    uint64_t mLosses = 0;
    TimePoint mLastLoss{};
    uint64_t mReceived = 0;                ///< bytes, on all connections
    std::deque<PostConnection*> mReady;    // to be read, in turn
    std::deque<PostConnection*> mHeavy;    // behind those
    std::vector<PostConnection*> mUnread;  // something has arrived, and there was no time to read it
    std::vector<PostConnection*> mTouched; // from which something has come since their last PONG
    std::vector<PostConnection*> mAwaited; // whose answer to a PING is
    SharedPatience mPatience;
    bool mIsPaused = false;
    std::vector<char> mBuffer;
};

#endif
