#include "statusmanager/OutgoingMessage.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "protocol/Words.h"
#include "statusmanager/PostFlow.h"

using BrokerProtocol::maxFrameBytes;

namespace
{

bool makeFrame(zmq_msg_t& frame, const char* bytes, std::size_t size)
{
    if (zmq_msg_init_size(&frame, size) != 0)
        return false;
    std::memcpy(zmq_msg_data(&frame), bytes, size);
    return true;
}

std::optional<int> failureOf(int sent, std::size_t size)
{
    return sent == static_cast<int>(size) ? std::nullopt : std::optional<int>(sent);
}

} // namespace

OutgoingMessage::~OutgoingMessage()
{
    const int error = errno;
    while (mSent != mMade)
        zmq_msg_close(&mFull[mSent++]);
    if (mHoldsLast && mFlow != nullptr)
        PostFlow::discardLastFrame(mLast);
    else if (mHoldsLast)
        zmq_msg_close(&mLast);
    errno = error;
}

std::optional<int> OutgoingMessage::send(void* socket, const std::string& text)
{
    const std::size_t full = (text.size() - 1) / maxFrameBytes;
    // Computed from the whole length, not from the remainder. This is deliberate: a message whose length is a
    // multiple of 512 ends with an empty frame and loses its final 512 bytes.
    const std::size_t lastSize = text.size() % maxFrameBytes;
    if (full == 0 && mFlow == nullptr)
        return failureOf(zmq_send(socket, text.data(), lastSize, 0), lastSize);
    if (!make(text.data(), full, lastSize))
    {
        errno = ENOMEM;
        return -1;
    }
    for (; mSent != full; ++mSent)
    {
        const int sent = zmq_msg_send(&mFull[mSent], socket, ZMQ_SNDMORE);
        if (const auto failure = failureOf(sent, maxFrameBytes))
            return failure;
    }
    return failureOf(sendLast(socket), lastSize);
}

bool OutgoingMessage::make(const char* bytes, std::size_t fullFrames, std::size_t lastSize)
{
    if (fullFrames != 0)
        mFull.reset(new (std::nothrow) zmq_msg_t[fullFrames]);
    if (fullFrames != 0 && mFull == nullptr)
        return false;
    for (; mMade != fullFrames; ++mMade, bytes += maxFrameBytes)
    {
        if (!makeFrame(mFull[mMade], bytes, maxFrameBytes))
            return false;
    }
    mHoldsLast = makeLast(bytes, lastSize);
    return mHoldsLast;
}

bool OutgoingMessage::makeLast(const char* bytes, std::size_t size)
{
    return mFlow != nullptr ? mFlow->makeLastFrame(mLast, bytes, size) : makeFrame(mLast, bytes, size);
}

int OutgoingMessage::sendLast(void* socket)
{
    if (mFlow == nullptr)
    {
        const int sent = zmq_msg_send(&mLast, socket, 0);
        mHoldsLast = sent == -1;
        return sent;
    }
    mHoldsLast = false; // sendLastFrame() sends or frees it
    return mFlow->sendLastFrame(socket, mLast);
}
