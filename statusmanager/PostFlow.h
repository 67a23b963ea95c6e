#ifndef STATUSMANAGER_POSTFLOW_H
#define STATUSMANAGER_POSTFLOW_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

struct zmq_msg_t;

/// Sends posts so that this process does not lose a burst, and notices when posts are lost nevertheless.
///
/// libzmq queues at most 1,000 messages of a PUB socket for its I/O thread, and silently drops more. But it
/// reports when it has released a message. So the number of unreleased posts is known, and a post waits while
/// there are many.
///
/// Waiting has a budget, because the same thread serves listeners and queries. The budget is one second. Each
/// post that leaves refills it by a tenth of a millisecond, and it is full again when every post has left. So
/// a post waits without limit for a broker that takes 10,000 posts a second. For a slower or absent broker,
/// posts wait one second plus the refills. After that, posts are sent without waiting, and libzmq drops those
/// for which it has no room.
///
/// Used by one thread only; libzmq's own threads only report released messages.
class PostFlow
{
public:
    /// Makes a post's last frame, which must then be sent or discarded. Returns false, with errno ENOMEM,
    /// when memory runs out.
    bool makeLastFrame(zmq_msg_t& message, const char* bytes, std::size_t size);

    /// Sends a frame of makeLastFrame(), with the result of zmq_send(). Needs no memory, throws nothing.
    int sendLastFrame(void* socket, zmq_msg_t& message);

    /// Frees a frame that is not to be sent. Keeps errno.
    static void discardLastFrame(zmq_msg_t& message);

    /// Waits until libzmq has released all posts, so that a request cannot overtake them inside this process.
    /// Waits at most `limit`, and never longer than the budget.
    void flush(void* socket, std::chrono::microseconds limit);

    /// Counts the posts that have left meanwhile. Sending and flushing do this too.
    void look();

    enum class News
    {
        None,
        DroppingBegan, ///< a post was dropped
        DroppingEnded, ///< all posts have left, and none was dropped for a second
    };

    /// The news since the last call.
    News takeNews();

    /// Whether dropping has begun and not ended yet.
    bool isDropping() const { return mIsDropping; }

    /// Posts dropped since dropping last began.
    unsigned dropped() const { return mDropped; }

    /// Counts a post that could not be sent at all.
    void countUnsent() { ++mLost; }

    /// All posts that were dropped or could not be sent. Any thread.
    uint64_t lost() const { return mLost; }

private:
    struct Frame;
    using Count = std::atomic<unsigned>;
    using Clock = std::chrono::steady_clock;

    void awaitUnderWay(void* socket, unsigned most, std::chrono::microseconds limit);
    void recover();
    void countDropped();
    void letLibzmqLook(void* socket);
    unsigned underWay() const { return mSent - mKnownReleased; }
    bool mayBeFull() const;

    static constexpr std::chrono::microseconds wholeBudget{1000000};

    unsigned mSent = 0;
    unsigned mKnownReleased = 0;
    unsigned mRoomKnown = 0; ///< released posts whose room libzmq knows to be free, except up to 499
    std::chrono::microseconds mBudget = wholeBudget;
    bool mIsDropping = false;
    bool mWasDropping = false; ///< when takeNews() was last called
    unsigned mDropped = 0;
    std::atomic<uint64_t> mLost{0};
    Clock::time_point mLastDrop;
    /// Shared, because libzmq may release the last posts after this object is gone.
    std::shared_ptr<Count> mReleased = std::make_shared<Count>(0);
};

#endif
