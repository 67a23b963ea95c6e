#ifndef STATUSMANAGER_POSTFLOW_H
#define STATUSMANAGER_POSTFLOW_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>

/// Sends posts so that none is lost in this process, and tells when all have left it.
///
/// libzmq keeps at most 1,000 messages of a PUB socket for its I/O thread and drops what comes beyond,
/// silently. It also tells when it has let go of a message. So it is known how many are under way, and a post
/// waits while there are many.
///
/// Where nothing moves for a second (the broker stands still, or is gone), posts go out without waiting, and
/// are dropped beyond libzmq's limit, until something moves again.
///
/// One thread; libzmq's own threads only tell.
class PostFlow
{
public:
    /// As zmq_send() of a post's last frame.
    int sendLastFrame(void* socket, const char* bytes, std::size_t size);

    /// Returns when libzmq has taken up all posts, so that a request cannot overtake them inside this
    /// process, or after `timeoutMs` milliseconds (negative: no such limit).
    void flush(void* socket, int timeoutMs);

private:
    struct Frame;
    using Count = std::atomic<unsigned>;
    using Clock = std::chrono::steady_clock;

    void awaitUnderWay(void* socket, unsigned most, Clock::time_point limit);
    bool hasMoved();

    unsigned mSent = 0;
    unsigned mKnownReleased = 0; ///< the room of these is known to libzmq, too, but for up to 499
    bool mStandsStill = false;
    /// libzmq may let go of the last ones after this object's end.
    std::shared_ptr<Count> mReleased = std::make_shared<Count>(0);
};

#endif
