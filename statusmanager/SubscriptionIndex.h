#ifndef STATUSMANAGER_SUBSCRIPTIONINDEX_H
#define STATUSMANAGER_SUBSCRIPTIONINDEX_H

#include <algorithm>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "statusmanager/StatusTypes.h"

/// Finds a key in a listener's list, among thousands as fast as among a few. Speed matters, because every
/// update is looked up for every listener. Short lists are searched from the front. A long list gets an index
/// here when it is first looked up. If there is no memory for the index, the list is searched from the front.
class SubscriptionIndex
{
    struct Index
    {
        std::unordered_set<std::string> keys;
        std::size_t covered = 0; ///< number of elements, from the front of the list, that are in `keys`
    };

public:
    /// Looks up keys in one list.
    class Lookup
    {
    public:
        /// Whether the list has an element that equals the key.
        bool contains(const std::string& key) const
        {
            if (mIndex != nullptr)
                return mIndex->keys.count(key) != 0;
            return std::find(mList.begin(), mList.end(), key) != mList.end();
        }

    private:
        friend class SubscriptionIndex;
        Lookup(const StatusKeys& list, const Index* index) : mList(list), mIndex(index) {}

        const StatusKeys& mList;
        const Index* mIndex; ///< null: search the list
    };

    /// Returns a lookup for several keys in a row. The list must live and must not change while the result is
    /// used.
    Lookup in(const StatusKeys& list) noexcept
    {
        constexpr std::size_t longestSearched = 8;
        return {list, list.size() <= longestSearched ? nullptr : cover(list)};
    }

    /// Erases the first element that equals the key, if there is one.
    void erase(StatusKeys& list, const std::string& key);

    /// Erases the last element.
    void popBack(StatusKeys& list);

    /// Must be called before a list is destroyed.
    void forget(const StatusKeys& list) { mIndexes.erase(&list); }

    /// Forgets all lists.
    void clear() { mIndexes.clear(); }

private:
    const Index* cover(const StatusKeys& list);
    void leaveOut(const StatusKeys& list, const std::string& key);

    std::unordered_map<const StatusKeys*, Index> mIndexes;
};

#endif
