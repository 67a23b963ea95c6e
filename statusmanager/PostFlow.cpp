#include "statusmanager/PostFlow.h"

#include <cerrno>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <zmq.h>

namespace
{

// libzmq's limit is 1,000, but it returns room in steps of 500, so up to 499 posts may have left without
// their room being free again. At most 500 may be under way beside them. Once there are, some must leave
// before the next look, as looking and waiting cost more than sending.
constexpr unsigned mostUnderWay = 500;
constexpr unsigned fewUnderWay = 400;

// What libzmq lets go of inside the call that sends, it has dropped: nobody has subscribed, or there is no
// room.
thread_local bool isSending = false;
thread_local unsigned droppedNow = 0;

constexpr int promptLooks = 20;
constexpr useconds_t pauseMicroseconds = 50;
constexpr std::chrono::seconds longestStandstill{1};

} // namespace

struct PostFlow::Frame
{
    std::string bytes;
    std::shared_ptr<Count> released;

    // Called by libzmq, on whatever thread.
    static void release(void*, void* frame)
    {
        const std::unique_ptr<Frame> own(static_cast<Frame*>(frame));
        if (isSending)
            ++droppedNow;
        else
            own->released->fetch_add(1, std::memory_order_release);
    }
};

int PostFlow::sendLastFrame(void* socket, const char* bytes, std::size_t size)
{
    if (mSent - mKnownReleased >= mostUnderWay)
        awaitUnderWay(socket, fewUnderWay, Clock::time_point::max());
    auto frame = std::make_unique<Frame>(Frame{std::string(bytes, size), mReleased});
    zmq_msg_t message;
    if (zmq_msg_init_data(&message, frame->bytes.data(), size, &Frame::release, frame.get()) != 0)
        return -1;
    static_cast<void>(frame.release()); // the message's now
    droppedNow = 0;
    isSending = true;
    const int sent = zmq_msg_send(&message, socket, 0);
    const int error = errno;
    if (sent == -1)
        zmq_msg_close(&message);
    isSending = false;
    mSent += 1 - droppedNow;
    errno = error;
    return sent;
}

void PostFlow::flush(void* socket, int timeoutMs)
{
    if (mSent == mKnownReleased)
        return; // nothing was posted since the last look
    const bool isLimited = timeoutMs >= 0;
    awaitUnderWay(socket, 0,
                  isLimited ? Clock::now() + std::chrono::milliseconds(timeoutMs) : Clock::time_point::max());
}

void PostFlow::awaitUnderWay(void* socket, unsigned most, Clock::time_point limit)
{
    auto now = Clock::now();
    auto lastMove = now;
    for (int looks = 0;; ++looks)
    {
        if (hasMoved())
        {
            lastMove = now;
            mStandsStill = false;
        }
        mStandsStill = mStandsStill || now - lastMove >= longestStandstill;
        if (mSent - mKnownReleased <= most || mStandsStill || now >= limit)
            break;
        if (looks < promptLooks)
            std::this_thread::yield();
        else
            usleep(pauseMicroseconds);
        now = Clock::now();
    }
    // libzmq has told of the room of what it has let go of; this makes it listen. By itself it does about
    // once in a millisecond.
    int events = 0;
    std::size_t size = sizeof(events);
    zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size);
}

// Since the last call.
bool PostFlow::hasMoved()
{
    const unsigned before = mKnownReleased;
    mKnownReleased = mReleased->load(std::memory_order_acquire);
    return mKnownReleased != before;
}
