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

/// The notifications that are on their way, once for all subscribers, as bytes of the wire. A subscriber is
/// only a position in them.
///
/// The bytes stand in chunks. A chunk is freed when no subscriber is in it any more, or when the log has
/// become too long: then those that are in it have fallen behind.
class NotificationLog
{
public:
    /// Bytes since the beginning of all.
    using Position = uint64_t;

    /// Of a message, counted from the beginning of all.
    using Number = uint64_t;

    static constexpr std::size_t chunkBytes = std::size_t{64} * 1024;

    /// @param revision of the state to which the message brings its readers
    /// @param events how many it holds
    void append(std::string_view message, uint64_t revision, uint64_t events);

    NotificationLog();

    Position end() const { return mLast.end; }

    /// A message on its way.
    struct Message
    {
        Position end;
        uint64_t revision;
        uint64_t eventsUpTo; ///< with its own
    };

    /// The message in which a position is, or which ends there.
    const Message& messageAt(Position position) const;

    /// The message that begins at a position between two, or in which the position is; null at the end.
    /// @param number is set to the number of that message, or of the next one to come. If it is that already,
    ///               nothing is searched.
    const Message* messageBehind(Position position, Number& number) const;

    /// Points to the bytes of a range, or as far as `most` pieces reach. Returns how many there are.
    std::size_t pieces(Position from, Position until, iovec* to, std::size_t most) const;

    /// The beginning of the text of the message that begins at a position. It is copied only if it lies in
    /// two chunks.
    std::string_view beginning(Position message, std::size_t most, std::string& copied) const;

    /// Copies the bytes of a range that is there.
    void copy(Position from, Position until, std::string& to) const;

    /// The text of the message from its beginning to its end.
    std::string text(Position begin, Position end) const;

    /// A subscriber comes to a position, and leaves it.
    void enter(Position position) { ++chunkAt(position).readers; }
    void leave(Position position) { --chunkAt(position).readers; }

    /// A subscriber reads on.
    void advance(Position from, Position to);

    /// Frees what nobody will read any more.
    void trim();

    /// Where the oldest chunk ends. Subscribers before it must leave when the log is too long; 0 if there is
    /// only the chunk that is being written.
    Position endOfOldest() const;

    /// Memory that the log takes.
    std::size_t heldBytes() const { return mChunks.size() * chunkBytes + mMessages.size() * sizeof(Message); }

    /// Memory that it takes for what is behind a position.
    std::size_t heldBytes(Position position) const;

    uint64_t eventsSoFar() const { return mLast.eventsUpTo; }

private:
    // Chunks are filled to the last byte, and behind a full one there is always another. So the chunk in
    // which a position is follows from the position alone, also where nothing has been written yet.
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
    Position mBegin = 0;           ///< of the first chunk
    Position mWritten = 0;         ///< while a message is being written, more than end()
    std::deque<Message> mMessages; ///< but those that end before the first chunk
    Number mFirst = 0;             ///< of these
    Message mLast{0, 0, 0};
};

#endif
