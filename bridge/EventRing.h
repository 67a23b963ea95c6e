#ifndef BRIDGE_EVENTRING_H
#define BRIDGE_EVENTRING_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "bridge/BridgeFile.h"

/// An event of the device that waits for the server.
struct WaitingEvent
{
    int64_t id = 0;   ///< grows with each event of the device
    int64_t time = 0; ///< milliseconds since the Unix epoch
    std::string name;
    std::string value;

    std::size_t bytes() const { return name.size() + value.size(); }
};

/// The events that the server has not acknowledged, in their order. They are in the file, up to a limit;
/// beyond it the oldest are dropped and counted. Without a usable file they are in memory, where fewer have
/// room.
class EventRing
{
public:
    struct Limits
    {
        std::size_t events = 10000;
        std::size_t bytes = std::size_t{4} * 1024 * 1024; ///< of names and values
        std::size_t inMemory = 200;                       ///< events that are not in the file
    };

    /// Reads the file.
    EventRing(BridgeFile& file, Limits limits);

    void setLimits(Limits limits) { mLimits = limits; }

    void add(std::string name, std::string value, int64_t time);

    /// Writes what was added and acknowledged, and drops what is too much. Call this before next(), so that a
    /// crash loses nothing.
    void commit();

    /// The next event to send; null if there is none. It is returned again until taken() is called.
    const WaitingEvent* next();

    /// The caller has sent the event that next() returned.
    void taken();

    /// The server has the event.
    void acknowledged(int64_t id);

    /// The connection is gone: the next event is again the oldest that was not acknowledged.
    void rewind();

    /// How many events were dropped since the file was made.
    int64_t dropped() const { return mDropped; }

    /// Whether events were added since the last commit().
    bool hasUnwritten() const { return !mUnwritten.empty(); }

    /// How many events wait.
    std::size_t size() const { return mUnwritten.size() + mInFile - std::min(mInFile, mAcknowledged.size()); }

private:
    struct Content // of the file
    {
        std::size_t events = 0;
        std::size_t bytes = 0;
        int64_t dropped = 0;

        void remove(int64_t size)
        {
            --events;
            bytes -= static_cast<std::size_t>(size);
        }
    };

    void load();
    void dropFromMemory();
    Content writeTo(sqlite3* database) const;
    void written(const Content& content);
    void dropFrom(sqlite3* database, Content& content) const;
    void fill();

    BridgeFile& mFile;
    Limits mLimits;
    unsigned mOpening = 0;
    std::deque<WaitingEvent> mUnwritten;
    std::vector<int64_t> mAcknowledged; // in the file, to be deleted
    std::deque<WaitingEvent> mWindow;   // read from the file, not yet taken
    int64_t mLastTaken = 0;
    int64_t mNextId = 1;
    std::size_t mInFile = 0;
    std::size_t mBytesInFile = 0;
    int64_t mDropped = 0;
    int64_t mDroppedInFile = 0;
};

#endif
