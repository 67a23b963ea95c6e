#ifndef BROKER_STATE_SAVEDSTATE_H
#define BROKER_STATE_SAVEDSTATE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

/// The state of the device, or a changed part of it, as plain values for storage.
struct SavedState
{
    /// A stopwatch.
    struct Timer
    {
        uint64_t accumulated = 0; ///< microseconds, without the current span
        uint64_t spanStart = 0;   ///< of the current span, microseconds of the monotonic clock; 0: stopped
        uint64_t lastStarted = 0; ///< microseconds since the Unix epoch; 0: never
    };

    /// The short history of a value. Times are microseconds since the Unix epoch; 0: unknown.
    struct Detail
    {
        uint64_t posted = 0;
        uint64_t changed = 0;
        uint32_t posts = 0;
        uint32_t changes = 0;
        std::string clients; ///< PosterText, which takes little memory
    };

    /// Forgotten names. A name is never both among the changes and here.
    struct Gone
    {
        using Names = std::set<std::string, std::less<>>;

        Names values;
        Names timers;
        Names counters;

        std::size_t size() const { return values.size() + timers.size() + counters.size(); }
    };

    std::map<std::string, std::string> values;
    std::map<std::string, Detail> details; ///< of values; details that are not here are unknown
    std::map<std::string, Timer> timers;
    std::map<std::string, uint32_t> counters;
    Gone gone;

    bool empty() const
    {
        return values.empty() && details.empty() && timers.empty() && counters.empty() && gone.size() == 0;
    }
};

/// Records among changes that a name has been forgotten, or exists again.
template <typename Map>
void noteGone(Map& changed, SavedState::Gone::Names& gone, std::string_view name)
{
    const std::string text(name);
    changed.erase(text);
    gone.insert(text);
}

inline void noteBack(SavedState::Gone::Names& gone, std::string_view name)
{
    const auto found = gone.find(name);
    if (found != gone.end())
        gone.erase(found);
}

#endif
