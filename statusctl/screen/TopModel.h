#ifndef STATUSCTL_SCREEN_TOPMODEL_H
#define STATUSCTL_SCREEN_TOPMODEL_H

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "statusctl/device/Change.h"

/// The content of the live screen, without the screen. One thread.
class TopModel
{
public:
    using Clock = std::chrono::steady_clock;

    struct Row
    {
        std::string key;
        std::string value;
        std::chrono::seconds age; ///< since the last post
        bool isAgeKnown;          ///< false until the broker has reported it, or a change has come
        bool hasJustChanged;
        double changesPerSecond; ///< over the last ten seconds
        std::string poster;      ///< the client that posted it last, as displayed
    };

    void take(const Change& change, Clock::time_point now);

    /// Takes the details of a key, as the broker reported them. Ignores a key that is not in the model.
    /// @param age since the last post, if known
    void takeDetails(const std::string& key, std::optional<std::chrono::microseconds> age,
                     const std::string& poster, Clock::time_point now);

    /// The rows whose key or value contains the filter, ignoring case, sorted by key.
    std::vector<Row> rows(const std::string& filter, Clock::time_point now) const;

    /// The latest events, the newest first.
    const std::deque<Change>& events() const { return mEvents; }

    std::size_t keyCount() const { return mEntries.size(); }

private:
    static constexpr std::size_t seconds = 10;

    // Changes per second: slot n % seconds counts second n, unless it still holds an older second.
    class Rate
    {
    public:
        void count(int64_t second);
        double perSecond(int64_t second) const;

    private:
        struct Slot
        {
            int64_t second = -1;
            uint64_t changes = 0;
        };
        std::array<Slot, seconds> mSlots{};
    };

    struct Entry
    {
        std::string value;
        std::optional<Clock::time_point> posted;
        std::optional<Clock::time_point> changed;
        std::string poster;
        Rate rate;
    };

    static int64_t secondOf(Clock::time_point time);

    std::map<std::string, Entry> mEntries;
    std::deque<Change> mEvents;
};

#endif
