#ifndef STATUSCTL_DEVICE_STALEKEYS_H
#define STATUSCTL_DEVICE_STALEKEYS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Knows which keys have not been posted for too long. The broker sends no notification for a post that
/// changes nothing. So each key has a time at which the broker must be asked for its last post. Use it on one
/// thread.
class StaleKeys
{
public:
    using Clock = std::chrono::steady_clock;

    explicit StaleKeys(Clock::duration longest) : mLongest(longest) {}

    /// Follows a key from now on. Its last post is still unknown.
    void add(const std::string& key, Clock::time_point now);

    /// A post of the key has been notified.
    void posted(const std::string& key, Clock::time_point now);

    /// When the next look is due. A key that appears before then cannot be due earlier.
    Clock::time_point nextLook(Clock::time_point now) const;

    /// The keys to ask the broker for now.
    std::vector<std::string> due(Clock::time_point now) const;

    /// The result of a look.
    struct Found
    {
        std::optional<Clock::duration> age; ///< since the last post, if that is known
        uint64_t posts;                     ///< how often it was posted
    };

    /// Takes the result of a look. Returns true once when the key becomes stale, and again only after a new
    /// post.
    /// @param asked the time of the look; a post notified since then is newer than the result
    bool looked(const std::string& key, const Found& found, Clock::time_point asked);

    /// Forgets a key that the broker no longer has.
    void remove(const std::string& key) { mKeys.erase(key); }

private:
    struct Key
    {
        Clock::time_point heard; ///< when the key or its last post was notified
        Clock::time_point due;
        std::optional<uint64_t> staleSince; ///< its number of posts when it became stale
    };

    const Clock::duration mLongest;
    std::map<std::string, Key> mKeys;
};

#endif
