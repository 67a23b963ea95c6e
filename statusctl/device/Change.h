#ifndef STATUSCTL_DEVICE_CHANGE_H
#define STATUSCTL_DEVICE_CHANGE_H

#include <json/value.h>
#include <optional>
#include <string>

#include "statusctl/text/Timestamp.h"

/// A line of a feed: a value, an event, or a mark about the feed itself.
struct Change
{
    enum class Kind
    {
        Initial, ///< a value that existed at the beginning
        Synced,  ///< the initial values, or the differences after Lost, are complete; no name and value
        Changed, ///< a new value
        Reset,   ///< the value is empty now
        Event,
        Stale, ///< the value has not been posted for too long
        Lost,  ///< the broker has gone; no name and value. Synced follows when it is back
        Gone,  ///< the broker is back and lacks the key
    };

    Timestamp::Time time;
    Kind kind;
    std::string name;
    std::string value;
};

/// Whether it is about the feed itself, without name and value.
inline bool isMark(Change::Kind kind)
{
    return kind == Change::Kind::Synced || kind == Change::Kind::Lost;
}

/// Whether it is a change of a value or an event.
inline bool isUpdate(Change::Kind kind)
{
    return kind != Change::Kind::Initial && !isMark(kind);
}

/// "initial", "synced", "changed", "reset", "event", "stale", "lost", "gone"
const char* nameOf(Change::Kind kind);

/// {"time":...,"kind":...,"name":...,"value":...}, as docs/statusctl.md describes it for scripts.
Json::Value toJson(const Change& change);

/// Reads the output of toJson(). Returns nothing for any other text.
std::optional<Change> readChange(const std::string& text);

#endif
