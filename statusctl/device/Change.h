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
        Synced,  ///< all of those have been told; without name and value
        Changed, ///< a new value
        Reset,   ///< the value is empty now
        Event,
        Stale, ///< the value has not been posted for long
    };

    Timestamp::Time time;
    Kind kind;
    std::string name;
    std::string value;
};

/// Whether it has happened since the beginning.
inline bool isUpdate(Change::Kind kind)
{
    return kind != Change::Kind::Initial && kind != Change::Kind::Synced;
}

/// "initial", "synced", "changed", "reset", "event", "stale"
const char* nameOf(Change::Kind kind);

/// {"time":...,"kind":...,"name":...,"value":...}; docs/statusctl.md describes it for scripts.
Json::Value toJson(const Change& change);

/// Reads the text that toJson() has made; nothing for any other text.
std::optional<Change> readChange(const std::string& text);

#endif
