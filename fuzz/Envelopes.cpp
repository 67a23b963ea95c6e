// Frames of requests and posts, of any number and size, through real sockets. An input is a row of frames: a
// byte that says how long the frame is and, in its highest bit, whether the message ends with it.

#include <vector>

#include "broker/PostChannel.h"
#include "broker/RequestChannel.h"
#include "fuzz/Fuzz.h"

namespace
{

struct Frame
{
    std::string bytes;
    bool last;
};

std::vector<Frame> framesOf(const uint8_t* data, std::size_t size)
{
    std::vector<Frame> frames;
    for (std::size_t at = 0; at < size && frames.size() < 50;)
    {
        const std::size_t length = std::min<std::size_t>(data[at] & 0x7FU, size - at - 1);
        frames.push_back({Fuzz::textOf(data + at + 1, length), (data[at] & 0x80U) != 0});
        at += 1 + length;
    }
    if (!frames.empty())
        frames.back().last = true;
    return frames;
}

std::size_t send(zmq::socket_t& socket, const std::vector<Frame>& frames)
{
    std::size_t messages = 0;
    for (const Frame& frame : frames)
    {
        socket.send(zmq::buffer(frame.bytes), frame.last ? zmq::send_flags::none : zmq::send_flags::sndmore);
        messages += frame.last ? 1 : 0;
    }
    return messages;
}

struct Peers
{
    Peers()
    {
        limits.messageBytes = 64;
        dealer.connect("inproc://requests");
        pub.connect("inproc://posts");
        // The subscription arrives with the first that is looked at.
        do
            pub.send(zmq::str_buffer("x"), zmq::send_flags::none);
        while (!posts.receive());
        while (posts.receive())
        {
        }
    }

    Limits limits;
    Refusals refusals;
    zmq::context_t context{0};
    RequestChannel requests{context, "inproc://requests", limits, refusals};
    PostChannel posts{context, "inproc://posts", limits, refusals};
    zmq::socket_t dealer{context, zmq::socket_type::dealer};
    zmq::socket_t pub{context, zmq::socket_type::pub};
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static auto* peers = new Peers;
    const std::vector<Frame> frames = framesOf(data, size);

    std::size_t messages = send(peers->dealer, frames);
    while (const auto request = peers->requests.receive())
    {
        Fuzz::require(!request->text || request->text->size() <= peers->limits.messageBytes,
                      "a request is limited");
        Fuzz::require(!request->connection.empty(), "there is somebody to answer");
        --messages;
    }
    Fuzz::require(messages == 0, "each message is one request");

    messages = send(peers->pub, frames);
    while (const auto post = peers->posts.receive())
    {
        Fuzz::require(!post->text || post->text->size() <= peers->limits.messageBytes, "a post is limited");
        --messages;
    }
    Fuzz::require(messages == 0, "each message is one post");
    return 0;
}
