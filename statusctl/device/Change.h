#ifndef STATUSCTL_DEVICE_CHANGE_H
#define STATUSCTL_DEVICE_CHANGE_H

#include <json/value.h>
#include <optional>
#include <string>

#include "statusctl/text/Timestamp.h"

/// Something that a feed tells of.
struct Change
{
    enum class Kind
    {
        Initial, ///< a value that was there at the beginning
        Synced,  ///< all of those have been told, or all that differs after Lost; without name and value
        Changed, ///< a new value
        Reset,   ///< the value is empty now
        Event,
        Stale, ///< the value has not been posted for long
        Lost,  ///< the broker has gone; without name and value. Synced follows when it is back
        Gone,  ///< the broker that is back does not have the key
    };

    Timestamp::Time time;
    Kind kind;
    std::string name;
    std::string value;
};

/// Whether it is about the feed, and so has neither name nor value.
inline bool isMark(Change::Kind kind)
{
    return kind == Change::Kind::Synced || kind == Change::Kind::Lost;
}

/// Whether it has happened to a value, or is an event.
inline bool isUpdate(Change::Kind kind)
{
    return kind != Change::Kind::Initial && !isMark(kind);
}

/// "initial", "synced", "changed", "reset", "event", "stale", "lost", "gone"
const char* nameOf(Change::Kind kind);

/// {"time":...,"kind":...,"name":...,"value":...}; docs/statusctl.md describes it for scripts.
Json::Value toJson(const Change& change);

/// Reads the text that toJson() has made; nothing for any other text.
std::optional<Change> readChange(const std::string& text);

#endif
