#ifndef STATUSMANAGER_POSTFLOW_H
#define STATUSMANAGER_POSTFLOW_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>

struct zmq_msg_t;

/// Sends posts so that a burst is not lost in this process, and notices when posts are lost all the same.
///
/// libzmq keeps at most 1,000 messages of a PUB socket for its I/O thread and drops what comes beyond,
/// silently. It also reports when it has let go of a message. So the number under way is known, and a post
/// waits while there are many.
///
/// Waiting has a budget, as the same thread serves listeners and queries. The budget is a second; each post
/// that leaves returns a tenth of a millisecond of it, and all of it returns when every post has left. So a
/// broker that takes 10,000 posts a second is waited for without end, and one that is slower, or gone, for a
/// second and what its posts return. Beyond that posts are sent without waiting, and libzmq drops those for
/// which it has no room.
///
/// One thread; libzmq's own threads only report.
class PostFlow
{
public:
    /// Makes a post's last frame, which is then sent or discarded. False, with ENOMEM, when there is no
    /// memory.
    bool makeLastFrame(zmq_msg_t& message, const char* bytes, std::size_t size);

    /// As zmq_send() of a frame that makeLastFrame() has made. Needs no memory, throws nothing.
    int sendLastFrame(void* socket, zmq_msg_t& message);

    /// Lets go of a frame that is not to be sent. Keeps errno.
    static void discardLastFrame(zmq_msg_t& message);

    /// Waits until libzmq has taken up all posts, so that a request cannot overtake them inside this process;
    /// at most `limit`, and never longer than the budget.
    void flush(void* socket, std::chrono::microseconds limit);

    /// Takes notice of what has left meanwhile, as sending and flushing do.
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
    unsigned mRoomKnown = 0; ///< the room of so many is known to libzmq, too, but for up to 499
    std::chrono::microseconds mBudget = wholeBudget;
    bool mIsDropping = false;
    bool mWasDropping = false; ///< when takeNews() was last called
    unsigned mDropped = 0;
    Clock::time_point mLastDrop;
    /// libzmq may let go of the last ones after this object's end.
    std::shared_ptr<Count> mReleased = std::make_shared<Count>(0);
};

#endif
