#ifndef STATUSCTL_DEVICE_STALEKEYS_H
#define STATUSCTL_DEVICE_STALEKEYS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Which keys have not been posted for too long. The broker does not tell of posts that change nothing, so
/// each key has a time at which it must be looked for how long ago that was. One thread.
class StaleKeys
{
public:
    using Clock = std::chrono::steady_clock;

    explicit StaleKeys(Clock::duration longest) : mLongest(longest) {}

    /// A key that is followed from now on; its last post is not known yet.
    void add(const std::string& key, Clock::time_point now);

    /// A post has been heard of.
    void posted(const std::string& key, Clock::time_point now);

    /// When the next key is to be looked at. Those that appear until then can wait as long.
    Clock::time_point nextLook(Clock::time_point now) const;

    /// The keys to look at now.
    std::vector<std::string> due(Clock::time_point now) const;

    /// The result of a look.
    struct Found
    {
        std::optional<Clock::duration> age; ///< since the last post, if that is known
        uint64_t posts;                     ///< how many there were
    };

    /// True if the key has become stale: once, until it is posted again.
    /// @param asked when; a post that has been heard of since then counts more
    bool looked(const std::string& key, const Found& found, Clock::time_point asked);

    /// A look has not found it.
    void remove(const std::string& key) { mKeys.erase(key); }

private:
    struct Key
    {
        Clock::time_point heard; ///< of it, or of its last post
        Clock::time_point due;
        std::optional<uint64_t> staleSince; ///< the number of posts then
    };

    const Clock::duration mLongest;
    std::map<std::string, Key> mKeys;
};

#endif
