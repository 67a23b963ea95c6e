#include "statusmanager/PostFlow.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <unistd.h>
#include <utility>
#include <zmq.h>

namespace
{

// libzmq's limit is 1,000, but it frees room in steps of 500. So up to 499 posts may have left although their
// room is not free yet. At most 500 more may be sent before libzmq must look for freed room. If many posts
// are unreleased at that point, some must leave first, because looking and waiting cost more than sending.
constexpr unsigned mostUnderWay = 500;
constexpr unsigned fewUnderWay = 400;

// If libzmq releases a message inside the call that sends it, it has dropped the message. It drops when there
// is no subscriber or no room.
thread_local bool isSending = false;
thread_local unsigned droppedNow = 0;

constexpr int promptLooks = 20;
constexpr useconds_t pauseMicroseconds = 50;

// If a pause lasts longer, this thread did not run or the process was stopped. The broker did not cause that,
// so the rest of the pause is not charged to the budget.
constexpr std::chrono::microseconds longestPause{10000};

// Posts wait without limit for a broker that takes 10,000 posts a second. For a slower broker there are the
// budget and the kernel's buffers, which hold bursts of tens of thousands of posts.
constexpr std::chrono::microseconds returnedByOnePost{100};

// Long enough that an overload with short pauses is reported once.
constexpr std::chrono::seconds quietAfterDropping{1};

} // namespace

/// The bytes of a post that is being sent. They follow the object, so that one allocation holds both.
struct PostFlow::Frame
{
    std::shared_ptr<Count> released;

    char* bytes() { return reinterpret_cast<char*>(this + 1); }

    // Returns null when memory runs out.
    static Frame* make(const std::shared_ptr<Count>& released, const char* bytes, std::size_t size)
    {
        void* memory = std::malloc(sizeof(Frame) + size);
        if (memory == nullptr)
            return nullptr;
        auto* frame = new (memory) Frame{released};
        std::memcpy(frame->bytes(), bytes, size);
        return frame;
    }

    static void destroy(Frame* frame)
    {
        frame->~Frame();
        std::free(frame);
    }

    // Called by libzmq, on any thread.
    static void release(void*, void* hint)
    {
        auto* frame = static_cast<Frame*>(hint);
        if (isSending)
            ++droppedNow;
        else
            frame->released->fetch_add(1, std::memory_order_release);
        destroy(frame);
    }
};

bool PostFlow::makeLastFrame(zmq_msg_t& message, const char* bytes, std::size_t size)
{
    Frame* frame = Frame::make(mReleased, bytes, size);
    if (frame != nullptr && zmq_msg_init_data(&message, frame->bytes(), size, &Frame::release, frame) == 0)
        return true;
    if (frame != nullptr)
        Frame::destroy(frame);
    errno = ENOMEM;
    return false;
}

int PostFlow::sendLastFrame(void* socket, zmq_msg_t& message)
{
    if (mIsDropping || mBudget < wholeBudget)
        look();
    if (mayBeFull())
        awaitUnderWay(socket, fewUnderWay, wholeBudget);
    droppedNow = 0;
    isSending = true;
    const int sent = zmq_msg_send(&message, socket, 0);
    const int error = errno;
    if (sent == -1)
        zmq_msg_close(&message);
    isSending = false;
    if (droppedNow == 0)
        ++mSent;
    else if (sent != -1 && mayBeFull())
        countDropped(); // otherwise there was room, but no subscriber
    errno = error;
    return sent;
}

void PostFlow::discardLastFrame(zmq_msg_t& message)
{
    const int error = errno;
    isSending = true; // so that release() does not count it as sent
    zmq_msg_close(&message);
    isSending = false;
    errno = error;
}

void PostFlow::flush(void* socket, std::chrono::microseconds limit)
{
    if (underWay() != 0)
        awaitUnderWay(socket, 0, limit);
}

PostFlow::News PostFlow::takeNews()
{
    if (std::exchange(mWasDropping, mIsDropping) == mIsDropping)
        return News::None;
    return mIsDropping ? News::DroppingBegan : News::DroppingEnded;
}

void PostFlow::awaitUnderWay(void* socket, unsigned most, std::chrono::microseconds limit)
{
    look();
    auto now = Clock::now();
    const auto end = now + limit;
    for (int looks = 0; underWay() > most && mBudget > mBudget.zero() && now < end; ++looks)
    {
        if (looks < promptLooks)
            std::this_thread::yield();
        else
            usleep(pauseMicroseconds);
        const auto before = std::exchange(now, Clock::now());
        mBudget -=
            std::min(std::chrono::duration_cast<std::chrono::microseconds>(now - before), longestPause);
        look();
    }
    letLibzmqLook(socket);
}

// Whether libzmq may believe that it has no room for a post. It looks for freed room only once in 3,000,000
// ticks of its clock, in which thousands of posts may be sent.
bool PostFlow::mayBeFull() const
{
    return mSent - mRoomKnown >= mostUnderWay;
}

void PostFlow::letLibzmqLook(void* socket)
{
    mRoomKnown = mKnownReleased;
    int events = 0;
    std::size_t size = sizeof(events);
    zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size);
}

void PostFlow::look()
{
    const unsigned before = mKnownReleased;
    mKnownReleased = mReleased->load(std::memory_order_acquire);
    mBudget = std::min(mBudget + (mKnownReleased - before) * returnedByOnePost, wholeBudget);
    if (underWay() == 0)
        recover();
}

// Called when every post has left.
void PostFlow::recover()
{
    if (mIsDropping && Clock::now() - mLastDrop < quietAfterDropping)
        return;
    mIsDropping = false;
    mBudget = wholeBudget;
}

void PostFlow::countDropped()
{
    if (!mIsDropping)
        mDropped = 0;
    mIsDropping = true;
    ++mDropped;
    ++mLost;
    mLastDrop = Clock::now();
}
