#include "bridge/EventRing.h"

#include <algorithm>
#include <utility>

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

// As WaitingEvent::bytes(), in SQL.
#define BYTES "length(CAST(name AS BLOB)) + length(CAST(value AS BLOB))"

namespace
{

constexpr const char* nextEvent = "nextEvent";
constexpr const char* droppedEvents = "droppedEvents";

WaitingEvent eventOf(const Sql& row)
{
    return {row.number(0), row.number(1), row.text(2), row.text(3)};
}

} // namespace

EventRing::EventRing(BridgeFile& file, Limits limits) : mFile(file), mLimits(limits)
{
    load();
}

// Events of a file that is lost count as dropped.
void EventRing::load()
{
    const std::size_t before = std::exchange(mInFile, 0);
    mBytesInFile = 0;
    mWindow.clear();
    const bool isRead = mFile.read(
        [this](sqlite3* database)
        {
            Sql all(database,
                    "SELECT count(*), coalesce(sum(" BYTES "), 0), coalesce(max(id), 0) FROM events");
            all.step();
            mInFile = static_cast<std::size_t>(all.number(0));
            mBytesInFile = static_cast<std::size_t>(all.number(1));
            mNextId = std::max(mNextId, all.number(2) + 1);
        });
    if (!isRead)
    {
        mInFile = before;
        return;
    }
    mOpening = mFile.openings();
    mNextId = std::max(mNextId, mFile.numberOf(nextEvent));
    mDropped = std::max(mDropped, mFile.numberOf(droppedEvents));
    mDropped += before > mInFile ? static_cast<int64_t>(before - mInFile) : 0;
}

void EventRing::add(std::string name, std::string value, int64_t time)
{
    mUnwritten.push_back({mNextId++, time, std::move(name), std::move(value)});
}

void EventRing::commit()
{
    if (mFile.openings() != mOpening)
        load();
    const int64_t before = mDropped;
    const bool isChanged = !mUnwritten.empty() || !mAcknowledged.empty() || mDropped != mDroppedInFile;
    if (isChanged && mFile.isOpen())
    {
        Content content;
        if (mFile.write([&](sqlite3* database) { content = writeTo(database); }))
            written(content);
    }
    dropFromMemory();
    if (mDropped != before)
        OV_LOG(2, "Dropped %lld events that waited for the server, %lld so far",
               static_cast<long long>(mDropped - before), static_cast<long long>(mDropped));
}

void EventRing::dropFromMemory()
{
    while (mUnwritten.size() > mLimits.inMemory)
    {
        mUnwritten.pop_front();
        ++mDropped;
    }
}

// The events that are written now have the file's order.
void EventRing::written(const Content& content)
{
    mInFile = content.events;
    mBytesInFile = content.bytes;
    mDropped = mDroppedInFile = content.dropped;
    mUnwritten.clear();
    mAcknowledged.clear();
}

EventRing::Content EventRing::writeTo(sqlite3* database) const
{
    Content content{mInFile, mBytesInFile, mDropped};
    Sql remove(database, "DELETE FROM events WHERE id = ? RETURNING " BYTES);
    for (const int64_t id : mAcknowledged)
    {
        if (remove.bind(id).step())
            content.remove(remove.number(0));
        remove.reset();
    }
    Sql insert(database, "INSERT INTO events VALUES (?, ?, ?, ?)");
    for (const WaitingEvent& event : mUnwritten)
    {
        insert.bind(event.id).bind(event.time).bind(event.name).bind(event.value).step();
        insert.reset();
        ++content.events;
        content.bytes += event.bytes();
    }
    dropFrom(database, content);
    if (!mUnwritten.empty())
        BridgeFile::setNumber(database, nextEvent, mNextId);
    if (content.dropped != mDroppedInFile)
        BridgeFile::setNumber(database, droppedEvents, content.dropped);
    return content;
}

void EventRing::dropFrom(sqlite3* database, Content& content) const
{
    Sql oldest(database, "DELETE FROM events WHERE id = (SELECT min(id) FROM events) RETURNING " BYTES);
    while (content.events > 0 && (content.events > mLimits.events || content.bytes > mLimits.bytes))
    {
        if (!oldest.step())
            return;
        content.remove(oldest.number(0));
        ++content.dropped;
        oldest.reset();
    }
}

const WaitingEvent* EventRing::next()
{
    if (mWindow.empty())
        fill();
    if (!mWindow.empty())
        return &mWindow.front();
    const auto event = std::find_if(mUnwritten.begin(), mUnwritten.end(),
                                    [this](const WaitingEvent& each) { return each.id > mLastTaken; });
    return event == mUnwritten.end() ? nullptr : &*event;
}

void EventRing::fill()
{
    constexpr int64_t most = 20;
    if (mInFile == 0)
        return;
    mFile.read(
        [this](sqlite3* database)
        {
            Sql rows(database, "SELECT id, time, name, value FROM events WHERE id > ? ORDER BY id LIMIT ?");
            rows.bind(mLastTaken).bind(most);
            while (rows.step())
                mWindow.push_back(eventOf(rows));
        });
}

void EventRing::taken()
{
    if (const WaitingEvent* event = next())
        mLastTaken = event->id;
    if (!mWindow.empty())
        mWindow.pop_front();
}

void EventRing::acknowledged(int64_t id)
{
    const auto event = std::find_if(mUnwritten.begin(), mUnwritten.end(),
                                    [id](const WaitingEvent& each) { return each.id == id; });
    if (event != mUnwritten.end())
        mUnwritten.erase(event);
    else
        mAcknowledged.push_back(id);
}

void EventRing::rewind()
{
    mLastTaken = 0;
    mWindow.clear();
}
