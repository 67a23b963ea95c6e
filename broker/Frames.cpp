#include "broker/Frames.h"

#include "statusmanager/BrokerProtocol.h"

namespace Frames
{

void send(zmq::socket_t& socket, const std::string& text)
{
    using BrokerProtocol::maxFrameBytes;
    std::size_t offset = 0;
    for (; text.size() - offset > maxFrameBytes; offset += maxFrameBytes)
        socket.send(zmq::buffer(text.data() + offset, maxFrameBytes), zmq::send_flags::sndmore);
    socket.send(zmq::buffer(text.data() + offset, text.size() - offset), zmq::send_flags::none);
}

bool receiveFrame(zmq::socket_t& socket, zmq::message_t& frame, bool& more)
{
    if (!socket.recv(frame, zmq::recv_flags::dontwait))
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
