#ifndef BROKER_WIRE_FRAMEREADER_H
#define BROKER_WIRE_FRAMEREADER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Takes the bytes of a connection apart into messages and commands.
///
/// A message that lies in the bytes completely, in one frame, is returned in place. Other messages are put
/// together here, up to the limit. A message beyond the limit is not stored.
class FrameReader
{
public:
    enum class Result
    {
        NeedsMore, ///< all bytes are used up
        Message,
        Command,
        TooLong,   ///< the end of a message beyond the limit
        Endless,   ///< a message so far beyond the limit that it seems to have no end
        Violation, ///< the peer broke the protocol
    };

    /// The result of next(). The body is valid until the next call, and only while the bytes are.
    struct Item
    {
        std::string_view body;     ///< of all frames
        std::size_t frames = 0;    ///< number of frames of a message
        bool firstIsEmpty = false; ///< whether its first frame is empty
    };

    /// Takes from the front of `bytes` up to the end of the next message or command.
    /// @param mostBytes limit of a message, over all frames
    Result next(std::string_view& bytes, std::size_t mostBytes, Item& item);

    /// Memory held for an unfinished message.
    std::size_t heldBytes() const { return mMessage.capacity() + mCommand.capacity(); }

    /// Whether a message or a command is incomplete.
    bool isUnfinished() const { return mFrames != 0 || mInFrame || mHeaderSize != 0; }

private:
    bool takeHeader(std::string_view& bytes);
    std::size_t headerSize() const;
    Result beginFrame(std::size_t mostBytes);
    Result takeBody(std::string_view& bytes, std::size_t mostBytes, Item& item);
    void keep(std::string_view piece, std::size_t mostBytes);
    Result endOfFrame(Item& item);
    void begin();

    static constexpr std::size_t longestHeader = 9;
    std::array<char, longestHeader> mHeader{};
    std::size_t mHeaderSize = 0; ///< bytes of the header received so far

    bool mInFrame = false;   ///< its header has come
    uint64_t mFrameLeft = 0; ///< bytes of its body still to come
    uint64_t mFrameSize = 0;
    bool mIsCommand = false;
    bool mHasMore = false;

    // The message under way.
    std::size_t mFrames = 0; ///< completed frames
    bool mFirstIsEmpty = false;
    bool mIsTooLong = false;
    uint64_t mWireBytes = 0; ///< including headers

    // A message or a command is put together here if it does not lie in the bytes completely.
    std::string mMessage;
    std::string mCommand;

    Result mDelivered = Result::NeedsMore; ///< the last result, which is no longer needed
};

#endif
