#ifndef BROKER_WIRE_FRAMEREADER_H
#define BROKER_WIRE_FRAMEREADER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Takes the bytes of a connection apart into messages and commands.
///
/// A message that lies in the bytes as a whole and in one frame is handed on as it lies there. Others are put
/// together here, up to the limit; of what is longer nothing is kept.
class FrameReader
{
public:
    enum class Result
    {
        NeedsMore, ///< all bytes are taken
        Message,
        Command,
        TooLong,   ///< a message beyond the limit has come to its end
        Endless,   ///< a message is so far beyond the limit that it seems to have none
        Violation, ///< of the protocol
    };

    /// The find of next(). The body is valid until the next call, and as long as the bytes are.
    struct Item
    {
        std::string_view body;     ///< of all frames
        std::size_t frames = 0;    ///< of a message
        bool firstIsEmpty = false; ///< its first frame
    };

    /// Takes from the front of `bytes` up to the end of the next message or command.
    /// @param mostBytes of a message, over all its frames
    Result next(std::string_view& bytes, std::size_t mostBytes, Item& item);

    /// Memory that is held for an unfinished message.
    std::size_t heldBytes() const { return mMessage.capacity() + mCommand.capacity(); }

    /// In the middle of a message or a command.
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
    std::size_t mHeaderSize = 0; ///< bytes of it that have come

    bool mInFrame = false;   ///< its header has come
    uint64_t mFrameLeft = 0; ///< bytes of its body that have not
    uint64_t mFrameSize = 0;
    bool mIsCommand = false;
    bool mHasMore = false;

    // The message under way.
    std::size_t mFrames = 0; ///< complete ones
    bool mFirstIsEmpty = false;
    bool mIsTooLong = false;
    uint64_t mWireBytes = 0; ///< with its headers

    // A message or a command is put together here if it does not lie in the bytes as a whole.
    std::string mMessage;
    std::string mCommand;

    Result mDelivered = Result::NeedsMore; ///< what was found last, and is done with
};

#endif
