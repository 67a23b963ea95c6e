#ifndef BROKER_WIRE_NOTIFICATIONLOG_H
#define BROKER_WIRE_NOTIFICATIONLOG_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <sys/uio.h>
#include <vector>

/// The notifications on their way, stored once for all subscribers, as bytes of the wire. A subscriber is
/// only a position in them.
///
/// The bytes are stored in chunks. A chunk is freed when no subscriber is in it any more. It is also freed
/// when the log has become too long: then the subscribers in it have fallen behind.
class NotificationLog
{
public:
    /// Bytes since the first notification.
    using Position = uint64_t;

    /// The number of a message, counted from the first.
    using Number = uint64_t;

    static constexpr std::size_t chunkBytes = std::size_t{64} * 1024;

    /// @param revision the state's revision once the message is read
    /// @param events how many events it holds
    void append(std::string_view message, uint64_t revision, uint64_t events);

    NotificationLog();

    Position end() const { return mLast.end; }

    /// A message on its way.
    struct Message
    {
        Position end;
        uint64_t revision;
        uint64_t eventsUpTo; ///< including its own
    };

    /// The message that contains a position, or ends there; an empty one at the beginning of the log.
    const Message& messageAt(Position position) const;

    /// The message that contains a position, or begins there; null at the end.
    /// @param number in: a guess, which saves the search if it is right; out: the number of that message, or
    ///     of the next one to come
    const Message* messageBehind(Position position, Number& number) const;

    /// Points to the bytes of a range, or to as many as fit into `most` pieces. Returns the number of pieces.
    std::size_t pieces(Position from, Position until, iovec* to, std::size_t most) const;

    /// The beginning of the text of the message that begins at a position. Copied only if it lies in two
    /// chunks.
    std::string_view beginning(Position message, std::size_t most, std::string& copied) const;

    /// Copies the bytes of a range, which must still be stored.
    void copy(Position from, Position until, std::string& to) const;

    /// The text of the message with this beginning and end.
    std::string text(Position begin, Position end) const;

    /// A subscriber arrives at a position, or leaves it.
    void enter(Position position) { ++chunkAt(position).readers; }
    void leave(Position position) { --chunkAt(position).readers; }

    /// A subscriber moves on.
    void advance(Position from, Position to);

    /// Frees what no subscriber will read any more.
    void trim();

    /// The end of the oldest chunk; 0 if the chunk being written is the only one. Subscribers before it must
    /// leave when the log is too long.
    Position endOfOldest() const;

    /// Memory that the log takes.
    std::size_t heldBytes() const { return mChunks.size() * chunkBytes + mMessages.size() * sizeof(Message); }

    /// Memory that the log takes behind a position.
    std::size_t heldBytes(Position position) const;

    uint64_t eventsSoFar() const { return mLast.eventsUpTo; }

private:
    // Chunks are filled to the last byte, and another one always follows a full one. So the position alone
    // determines its chunk, even where nothing has been written yet.
    struct Chunk
    {
        std::size_t readers = 0;
        std::unique_ptr<char[]> bytes{new char[chunkBytes]};
    };

    std::deque<Message>::const_iterator findMessage(Position position) const;
    bool isBehind(Position position, Number number) const;
    std::size_t indexAt(Position position) const
    {
        return static_cast<std::size_t>((position - mBegin) / chunkBytes);
    }
    Chunk& chunkAt(Position position) { return mChunks[indexAt(position)]; }
    void write(std::string_view bytes);
    void addChunk();

    std::deque<Chunk> mChunks;
    std::unique_ptr<char[]> mSpare;
    Position mBegin = 0;           ///< the beginning of the first chunk
    Position mWritten = 0;         ///< beyond end() while a message is being written
    std::deque<Message> mMessages; ///< except those that end before the first chunk
    Number mFirst = 0;             ///< the number of the first in mMessages
    Message mLast{0, 0, 0};
};

#endif
