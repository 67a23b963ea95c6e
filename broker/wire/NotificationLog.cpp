#include "broker/wire/NotificationLog.h"

#include <algorithm>
#include <cstring>

#include "broker/wire/FrameWriter.h"

NotificationLog::NotificationLog()
{
    addChunk();
}

void NotificationLog::append(std::string_view message, uint64_t revision, uint64_t events)
{
    FrameWriter::message([this](std::string_view bytes) { write(bytes); }, message);
    mLast = {mWritten, revision, mLast.eventsUpTo + events};
    mMessages.push_back(mLast);
}

void NotificationLog::write(std::string_view bytes)
{
    while (!bytes.empty())
    {
        const std::size_t offset = mWritten % chunkBytes;
        const std::size_t size = std::min(bytes.size(), chunkBytes - offset);
        std::memcpy(mChunks.back().bytes.get() + offset, bytes.data(), size);
        mWritten += size;
        bytes.remove_prefix(size);
        if (mWritten % chunkBytes == 0)
            addChunk();
    }
}

void NotificationLog::addChunk()
{
    if (!mSpare)
    {
        mChunks.emplace_back();
        return;
    }
    mChunks.push_back({0, std::move(mSpare)});
}

// The message that contains a position, or ends there.
std::deque<NotificationLog::Message>::const_iterator NotificationLog::findMessage(Position position) const
{
    return std::lower_bound(mMessages.begin(), mMessages.end(), position,
                            [](const Message& each, Position at) { return each.end < at; });
}

std::size_t NotificationLog::heldBytes(Position position) const
{
    const auto messages = static_cast<std::size_t>(mMessages.end() - findMessage(position));
    return (mChunks.size() - indexAt(position)) * chunkBytes + messages * sizeof(Message);
}

const NotificationLog::Message& NotificationLog::messageAt(Position position) const
{
    // At the very beginning no message ends, but none contains the position either.
    static constexpr Message beginning{0, 0, 0};
    if (position == 0)
        return beginning;
    const auto message = findMessage(position);
    return message == mMessages.end() ? mLast : *message;
}

const NotificationLog::Message* NotificationLog::messageBehind(Position position, Number& number) const
{
    if (!isBehind(position, number))
    {
        const auto message = std::upper_bound(mMessages.begin(), mMessages.end(), position,
                                              [](Position at, const Message& each) { return at < each.end; });
        number = mFirst + static_cast<Number>(message - mMessages.begin());
    }
    const auto index = static_cast<std::size_t>(number - mFirst);
    return index == mMessages.size() ? nullptr : &mMessages[index];
}

// Whether messageBehind() would return this number for the position.
bool NotificationLog::isBehind(Position position, Number number) const
{
    if (number < mFirst || number - mFirst > mMessages.size())
        return false;
    const auto index = static_cast<std::size_t>(number - mFirst);
    return (index == 0 || mMessages[index - 1].end <= position) &&
           (index == mMessages.size() || position < mMessages[index].end);
}

std::size_t NotificationLog::pieces(Position from, Position until, iovec* to, std::size_t most) const
{
    std::size_t count = 0;
    for (; from < until && count < most; ++count)
    {
        const std::size_t offset = from % chunkBytes;
        const auto size = static_cast<std::size_t>(std::min<Position>(until - from, chunkBytes - offset));
        to[count] = {mChunks[indexAt(from)].bytes.get() + offset, size};
        from += size;
    }
    return count;
}

void NotificationLog::copy(Position from, Position until, std::string& to) const
{
    for (iovec piece{}; pieces(from, until, &piece, 1) != 0; from += piece.iov_len)
        to.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
}

// The first frame contains the whole beginning.
std::string_view NotificationLog::beginning(Position message, std::size_t most, std::string& copied) const
{
    const Position until = std::min(end(), message + FrameWriter::longHeader + most);
    iovec piece{};
    pieces(message, until, &piece, 1);
    std::string_view bytes(static_cast<const char*>(piece.iov_base), piece.iov_len);
    if (bytes.size() != until - message)
    {
        copied.clear();
        copy(message, until, copied);
        bytes = copied;
    }
    return FrameWriter::bodyOfFirst(bytes).substr(0, most);
}

std::string NotificationLog::text(Position begin, Position end) const
{
    std::string bytes;
    copy(begin, end, bytes);
    std::string text;
    text.reserve(bytes.size());
    std::string_view left = bytes;
    while (!left.empty())
    {
        const std::string_view body = FrameWriter::bodyOfFirst(left);
        text += body;
        left.remove_prefix(static_cast<std::size_t>(body.data() + body.size() - left.data()));
    }
    return text;
}

void NotificationLog::advance(Position from, Position to)
{
    if (indexAt(from) == indexAt(to))
        return;
    enter(to);
    leave(from);
}

void NotificationLog::trim()
{
    while (mChunks.size() > 1 && mChunks.front().readers == 0)
    {
        mSpare = std::move(mChunks.front().bytes);
        mChunks.pop_front();
        mBegin += chunkBytes;
    }
    for (; !mMessages.empty() && mMessages.front().end < mBegin; ++mFirst)
        mMessages.pop_front();
}

NotificationLog::Position NotificationLog::endOfOldest() const
{
    return mChunks.size() > 1 ? mBegin + chunkBytes : 0;
}
