#ifndef BROKER_FILTEREDMESSAGES_H
#define BROKER_FILTEREDMESSAGES_H

#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "broker/wire/NotificationLog.h"

class PolicyClass;

/// The visible parts of recent notifications, per policy class. Each part is filtered once, however many
/// subscribers share the class. Bounded: a part that was dropped is filtered again.
class FilteredMessages
{
public:
    /// The most bytes that are kept, unless a single text is longer.
    static constexpr std::size_t mostBytes = std::size_t{256} * 1024;

    using Key = std::pair<NotificationLog::Position, const PolicyClass*>; ///< the position where the message
                                                                          ///< begins

    /// Null if the part is not here.
    const std::string* find(const Key& key) const
    {
        const auto found = mTexts.find(key);
        return found == mTexts.end() ? nullptr : &found->second;
    }

    /// @returns the text, valid until the next call
    const std::string& add(const Key& key, std::string text)
    {
        const std::size_t bytes = text.size() + perText;
        if (mBytes + bytes > mostBytes)
            clear();
        mBytes += bytes;
        return mTexts[key] = std::move(text);
    }

    void clear()
    {
        mTexts.clear();
        mBytes = 0;
    }

private:
    static constexpr std::size_t perText = 128; // memory of an entry beside its text

    std::map<Key, std::string> mTexts;
    std::size_t mBytes = 0;
};

#endif
