#include "statusmanager/PostFlow.h"

#include <cerrno>
#include <chrono>
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
        awaitUnderWay(socket, fewUnderWay);
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

void PostFlow::flush(void* socket)
{
    awaitUnderWay(socket, 0);
}

void PostFlow::awaitUnderWay(void* socket, unsigned most)
{
    mStandsStill = mStandsStill && mReleased->load(std::memory_order_acquire) == mKnownReleased;
    auto end = std::chrono::steady_clock::now() + longestStandstill;
    for (int looks = 0; underWay() > most && !mStandsStill; ++looks)
    {
        const unsigned before = mKnownReleased;
        if (looks < promptLooks)
            std::this_thread::yield();
        else
            usleep(pauseMicroseconds);
        const auto now = std::chrono::steady_clock::now();
        if (underWay() < mSent - before)
            end = now + longestStandstill;
        mStandsStill = now >= end;
    }
    // libzmq has told of the room of what it has let go of; this makes it listen. By itself it does about
    // once in a millisecond.
    int events = 0;
    std::size_t size = sizeof(events);
    zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size);
}

unsigned PostFlow::underWay()
{
    mKnownReleased = mReleased->load(std::memory_order_acquire);
    return mSent - mKnownReleased;
}
