#include "broker/wire/FrameReader.h"

#include <algorithm>

#include "broker/wire/FrameWriter.h"

namespace
{

using FrameWriter::commandFlag;
using FrameWriter::longFlag;
using FrameWriter::moreFlag;
constexpr unsigned knownFlags = moreFlag | longFlag | commandFlag;

// Long enough for READY with all its properties, and for subscriptions.
constexpr uint64_t longestCommand = 2048;

// A message beyond the limit is read to its end, so that its client can continue. Only if it seems endless,
// the connection ends.
constexpr uint64_t hopelessly = 2;
constexpr uint64_t roomForHeaders = 16384;

// Memory that stays allocated for the next message.
constexpr std::size_t keptBytes = 2048;

} // namespace

FrameReader::Result FrameReader::next(std::string_view& bytes, std::size_t mostBytes, Item& item)
{
    if (mDelivered != Result::NeedsMore)
        begin();
    for (;;)
    {
        if (!mInFrame)
        {
            if (!takeHeader(bytes))
                return Result::NeedsMore;
            if (const Result result = beginFrame(mostBytes); result != Result::NeedsMore)
                return result;
        }
        const Result result = takeBody(bytes, mostBytes, item);
        if (result != Result::NeedsMore || mInFrame)
            return result;
    }
}

// Returns false while the header is incomplete.
bool FrameReader::takeHeader(std::string_view& bytes)
{
    while (mHeaderSize < headerSize())
    {
        if (bytes.empty())
            return false;
        mHeader[mHeaderSize++] = bytes.front();
        bytes.remove_prefix(1);
    }
    return true;
}

// The size of the header, as far as it is known yet.
std::size_t FrameReader::headerSize() const
{
    if (mHeaderSize == 0)
        return 1;
    return (static_cast<unsigned char>(mHeader[0]) & longFlag) != 0 ? longestHeader : 2;
}

// Returns NeedsMore if the header is valid.
FrameReader::Result FrameReader::beginFrame(std::size_t mostBytes)
{
    const unsigned flags = static_cast<unsigned char>(mHeader[0]);
    mHasMore = (flags & moreFlag) != 0;
    mIsCommand = (flags & commandFlag) != 0;
    mFrameSize = 0;
    for (std::size_t at = 1; at < mHeaderSize; ++at)
        mFrameSize = mFrameSize << 8 | static_cast<unsigned char>(mHeader[at]);
    if ((flags & ~knownFlags) != 0)
        return Result::Violation;
    if (mIsCommand && (mHasMore || mFrameSize > longestCommand))
        return Result::Violation;
    const uint64_t longest = hopelessly * mostBytes + roomForHeaders;
    if (!mIsCommand)
    {
        if (mFrameSize > longest || mWireBytes + mHeaderSize + mFrameSize > longest)
            return Result::Endless;
        mWireBytes += mHeaderSize + mFrameSize;
    }
    mFrameLeft = mFrameSize;
    mHeaderSize = 0;
    mInFrame = true;
    return Result::NeedsMore;
}

FrameReader::Result FrameReader::takeBody(std::string_view& bytes, std::size_t mostBytes, Item& item)
{
    const std::string_view piece =
        bytes.substr(0, static_cast<std::size_t>(std::min<uint64_t>(bytes.size(), mFrameLeft)));
    bytes.remove_prefix(piece.size());
    mFrameLeft -= piece.size();
    const bool isWhole = piece.size() == mFrameSize;
    if (isWhole && (mIsCommand || (mFrames == 0 && !mHasMore && piece.size() <= mostBytes)))
        item.body = piece; // in place
    else
    {
        keep(piece, mostBytes);
        item.body = mIsCommand ? mCommand : mMessage;
    }
    return mFrameLeft == 0 ? endOfFrame(item) : Result::NeedsMore;
}

// A command may arrive between two frames of a message, so it has its own buffer.
void FrameReader::keep(std::string_view piece, std::size_t mostBytes)
{
    if (mIsCommand)
        mCommand += piece;
    else if (!mIsTooLong && mMessage.size() + piece.size() <= mostBytes)
        mMessage += piece;
    else
    {
        mIsTooLong = true;
        std::string().swap(mMessage);
    }
}

// Returns NeedsMore if the message has more frames.
FrameReader::Result FrameReader::endOfFrame(Item& item)
{
    mInFrame = false;
    if (mIsCommand)
    {
        mDelivered = Result::Command;
        return mDelivered;
    }
    if (mFrames == 0)
        mFirstIsEmpty = mFrameSize == 0;
    ++mFrames;
    if (mHasMore)
        return Result::NeedsMore;
    item.frames = mFrames;
    item.firstIsEmpty = mFirstIsEmpty;
    mDelivered = mIsTooLong ? Result::TooLong : Result::Message;
    return mDelivered;
}

// Drops the item that was returned last.
void FrameReader::begin()
{
    std::string& text = mDelivered == Result::Command ? mCommand : mMessage;
    text.clear();
    if (text.capacity() > keptBytes)
        std::string().swap(text);
    if (mDelivered != Result::Command)
    {
        mFrames = 0;
        mWireBytes = 0;
        mIsTooLong = false;
    }
    mDelivered = Result::NeedsMore;
}
