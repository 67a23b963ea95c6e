#ifndef BROKER_FILTEREDMESSAGES_H
#define BROKER_FILTEREDMESSAGES_H

#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "broker/wire/NotificationLog.h"

class PolicyClass;

/// The parts of the last notifications that kinds of clients may be told of: each is found out once, however
/// many subscribers of that kind there are. Bounded; what is gone is found out again.
class FilteredMessages
{
public:
    /// Most bytes, unless one text alone has more.
    static constexpr std::size_t mostBytes = std::size_t{256} * 1024;

    using Key = std::pair<NotificationLog::Position, const PolicyClass*>; ///< where the message begins

    /// Null if it is not there.
    const std::string* find(const Key& key) const
    {
        const auto found = mTexts.find(key);
        return found == mTexts.end() ? nullptr : &found->second;
    }

    /// @returns the text, until the next call
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
    static constexpr std::size_t perText = 128; // what an entry takes beside it

    std::map<Key, std::string> mTexts;
    std::size_t mBytes = 0;
};

#endif
