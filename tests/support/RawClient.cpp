#include "tests/support/RawClient.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <stdexcept>
#include <utility>

namespace
{

zmq::context_t& context()
{
    static auto* instance = new zmq::context_t;
    return *instance;
}

int milliseconds(std::chrono::milliseconds time)
{
    return static_cast<int>(time.count());
}

void sendFrames(zmq::socket_t& socket, const std::vector<std::string>& frames)
{
    for (std::size_t index = 0; index < frames.size(); ++index)
    {
        const bool last = index + 1 == frames.size();
        socket.send(zmq::buffer(frames[index]), last ? zmq::send_flags::none : zmq::send_flags::sndmore);
    }
}

std::optional<std::vector<std::string>> receiveFrames(zmq::socket_t& socket,
                                                      std::chrono::milliseconds deadline)
{
    socket.set(zmq::sockopt::rcvtimeo, milliseconds(deadline));
    std::vector<std::string> frames;
    zmq::message_t frame;
    do
    {
        if (!socket.recv(frame, zmq::recv_flags::none))
            return std::nullopt;
        frames.push_back(frame.to_string());
    } while (frame.more());
    return frames;
}

std::string joined(const std::optional<std::vector<std::string>>& frames)
{
    std::string text;
    for (const std::string& frame : frames.value_or(std::vector<std::string>()))
        text += frame;
    return text;
}

} // namespace

RawRequester::RawRequester(zmq::socket_type type) : mSocket(context(), type)
{
    mSocket.set(zmq::sockopt::linger, 0);
}

// A request that waits for its connection leaves when the connection is made. It could overtake an earlier
// post that the I/O thread has not taken yet. So the connection is requested after the post.
void RawRequester::connect()
{
    if (!std::exchange(mIsConnected, true))
        mSocket.connect("tcp://127.0.0.1:5555");
}

void RawRequester::send(const std::vector<std::string>& frames)
{
    connect();
    sendFrames(mSocket, frames);
}

std::optional<std::vector<std::string>> RawRequester::receive(std::chrono::milliseconds deadline)
{
    connect();
    return receiveFrames(mSocket, deadline);
}

std::string RawRequester::ask(const std::string& request)
{
    send({request});
    std::optional<std::vector<std::string>> answer = receive();
    if (answer && joined(answer).empty())
    {
        send({request});
        answer = receive();
    }
    return joined(answer);
}

uint64_t brokerStatistic(RawRequester& requester, const std::string& name)
{
    const std::string text = requester.ask(R"({"getBrokerStatistics":"null"})");
    const std::size_t at = text.find("\"" + name + "\":");
    if (at == std::string::npos)
    {
        ADD_FAILURE() << "no \"" << name << "\" in " << text;
        return 0;
    }
    return std::stoull(text.substr(at + name.size() + 3));
}

// An XPUB posts like a PUB, and also receives the broker's subscription.
RawPoster::RawPoster() : mSocket(context(), zmq::socket_type::xpub)
{
    mSocket.set(zmq::sockopt::linger, 1000);
    mSocket.set(zmq::sockopt::sndhwm, 0);
    mSocket.connect("tcp://127.0.0.1:5556");
    if (!receiveFrames(mSocket, testDeadline))
        throw std::runtime_error("the broker's subscription did not come");
}

void RawPoster::post(const std::vector<std::string>& frames)
{
    sendFrames(mSocket, frames);
}

RawSubscriber::RawSubscriber(RawPoster& poster) : mSocket(context(), zmq::socket_type::sub)
{
    mSocket.set(zmq::sockopt::linger, 0);
    mSocket.set(zmq::sockopt::rcvhwm, 0);
    mSocket.set(zmq::sockopt::subscribe, "");
    mSocket.connect("tcp://127.0.0.1:5557");
    // Subscribers receive a posted "Sync": repeat it until the subscription works.
    const bool subscribed = eventually(
        [&]
        {
            poster.post("Sync");
            return receiveFrames(mSocket, std::chrono::milliseconds(10)).has_value();
        });
    if (!subscribed)
        throw std::runtime_error("the subscription did not reach the broker");
}

std::optional<std::vector<std::string>> RawSubscriber::receive(std::chrono::milliseconds deadline)
{
    using std::chrono::milliseconds;
    const auto end = std::chrono::steady_clock::now() + deadline;
    std::optional<std::vector<std::string>> frames;
    do
    {
        const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
        frames = receiveFrames(mSocket, std::max(milliseconds(0), left));
    } while (joined(frames) == "Sync");
    return frames;
}

std::string RawSubscriber::receiveText(std::chrono::milliseconds deadline)
{
    return joined(receive(deadline));
}
