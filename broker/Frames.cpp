#include "broker/Frames.h"

#include <cerrno>

#include "statusmanager/BrokerProtocol.h"

namespace
{

// A process that was stopped and goes on (SIGCONT) finds its calls interrupted, although it handles no
// signal.
template <typename Call>
auto uninterrupted(Call call)
{
    for (;;)
    {
        try
        {
            return call();
        }
        catch (const zmq::error_t& error)
        {
            if (error.num() != EINTR)
                throw;
        }
    }
}

} // namespace

namespace Frames
{

void sendFrame(zmq::socket_t& socket, zmq::const_buffer bytes, bool more)
{
    const zmq::send_flags flags = more ? zmq::send_flags::sndmore : zmq::send_flags::none;
    uninterrupted([&] { return socket.send(bytes, flags); });
}

void send(zmq::socket_t& socket, const std::string& text)
{
    using BrokerProtocol::maxFrameBytes;
    std::size_t offset = 0;
    for (; text.size() - offset > maxFrameBytes; offset += maxFrameBytes)
        sendFrame(socket, zmq::buffer(text.data() + offset, maxFrameBytes), true);
    sendFrame(socket, zmq::buffer(text.data() + offset, text.size() - offset), false);
}

bool receiveFrame(zmq::socket_t& socket, zmq::message_t& frame, bool& more)
{
    if (!uninterrupted([&] { return socket.recv(frame, zmq::recv_flags::dontwait); }))
        return false;
    more = frame.more();
    return true;
}

void Assembly::add(const zmq::message_t& frame)
{
    if (!mText)
        return;
    if (mText->size() + frame.size() > mLongest)
        mText.reset();
    else
        mText->append(frame.data<char>(), frame.size());
}

} // namespace Frames
