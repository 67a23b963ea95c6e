#ifndef STATUSMANAGER_OUTGOINGMESSAGE_H
#define STATUSMANAGER_OUTGOINGMESSAGE_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <zmq.h>

class PostFlow;

/// A message in frames, all of which are made before the first is sent. If memory ran out in between, the
/// broker would take the next message for the rest of this one.
class OutgoingMessage
{
public:
    /// @param flow counts the message as a post; null for a request
    explicit OutgoingMessage(PostFlow* flow) : mFlow(flow) {}
    /// Lets go of what was not sent. Keeps errno.
    ~OutgoingMessage();

    OutgoingMessage(const OutgoingMessage&) = delete;
    OutgoingMessage& operator=(const OutgoingMessage&) = delete;

    /// Cuts the text, which is not empty, into frames and sends them; called once. Nothing if each has gone
    /// out whole; otherwise the other result of the send that failed, with its errno.
    std::optional<int> send(void* socket, const std::string& text);

private:
    bool make(const char* bytes, std::size_t fullFrames, std::size_t lastSize);
    bool makeLast(const char* bytes, std::size_t size);
    int sendLast(void* socket);

    PostFlow* mFlow;
    std::unique_ptr<zmq_msg_t[]> mFull; ///< none in a message of one frame
    std::size_t mMade = 0;              ///< of them
    std::size_t mSent = 0;              ///< of them
    zmq_msg_t mLast{};
    bool mHoldsLast = false;
};

#endif
