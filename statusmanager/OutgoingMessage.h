#ifndef STATUSMANAGER_OUTGOINGMESSAGE_H
#define STATUSMANAGER_OUTGOINGMESSAGE_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <zmq.h>

class PostFlow;

/// A message in frames. All frames are made before the first is sent. If memory ran out in between, the
/// broker would take the next message for the rest of this message.
class OutgoingMessage
{
public:
    /// @param flow counts the message as a post; null for a request
    explicit OutgoingMessage(PostFlow* flow) : mFlow(flow) {}
    /// Frees the frames that were not sent. Keeps errno.
    ~OutgoingMessage();

    OutgoingMessage(const OutgoingMessage&) = delete;
    OutgoingMessage& operator=(const OutgoingMessage&) = delete;

    /// Cuts the text, which must not be empty, into frames and sends them. Call it once. Returns nothing if
    /// all frames were sent whole; otherwise the result of the failed send, with its errno.
    std::optional<int> send(void* socket, const std::string& text);

private:
    bool make(const char* bytes, std::size_t fullFrames, std::size_t lastSize);
    bool makeLast(const char* bytes, std::size_t size);
    int sendLast(void* socket);

    PostFlow* mFlow;
    std::unique_ptr<zmq_msg_t[]> mFull; ///< all frames but the last; null if there is only one
    std::size_t mMade = 0;              ///< how many of mFull are made
    std::size_t mSent = 0;              ///< how many of mFull are sent
    zmq_msg_t mLast{};
    bool mHoldsLast = false;
};

#endif
