#ifndef BROKER_FRAMES_H
#define BROKER_FRAMES_H

#include <optional>
#include <string>
#include <zmq.hpp>

/// Messages as texts in frames. A socket call that fails for another reason than "nothing there" throws
/// zmq::error_t: on the broker's own sockets that is not to be expected while it runs.
namespace Frames
{

/// Sends a text in frames of at most 512 bytes, the last of which is never empty. The text must not be empty.
void send(zmq::socket_t& socket, const std::string& text);

/// Sends one frame, to be followed by more of the same message or not.
void sendFrame(zmq::socket_t& socket, zmq::const_buffer bytes, bool more);

/// Receives one frame; nothing if none is there. `more` tells whether the message goes on.
bool receiveFrame(zmq::socket_t& socket, zmq::message_t& frame, bool& more);

/// A message put together from its frames. One that is too long is read to its end and refused, so that no
/// client can fill the broker's memory with it.
class Assembly
{
public:
    /// @param longest bytes over all frames
    explicit Assembly(std::size_t longest) : mLongest(longest) {}

    void add(const zmq::message_t& frame);

    /// The text; nothing if it was too long.
    const std::optional<std::string>& text() const { return mText; }

private:
    std::size_t mLongest;
    std::optional<std::string> mText = std::string();
};

} // namespace Frames

#endif
