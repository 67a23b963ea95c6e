#include "statusmanager/SubscriptionIndex.h"

#include <new>

// Returns null when memory runs out. The part indexed so far is kept, and a later lookup continues from
// there.
const SubscriptionIndex::Index* SubscriptionIndex::cover(const StatusKeys& list)
{
    try
    {
        const auto found = mIndexes.find(&list);
        Index& index = found != mIndexes.end() ? found->second : mIndexes[&list];
        for (; index.covered < list.size(); ++index.covered)
            index.keys.insert(list[index.covered]);
        return &index;
    }
    catch (const std::bad_alloc&)
    {
        return nullptr;
    }
}

void SubscriptionIndex::erase(StatusKeys& list, const std::string& key)
{
    const auto element = std::find(list.begin(), list.end(), key);
    if (element == list.end())
        return;
    leaveOut(list, *element);
    list.erase(element);
}

void SubscriptionIndex::popBack(StatusKeys& list)
{
    leaveOut(list, list.back());
    list.pop_back();
}

// An element that is not yet indexed is behind all indexed ones, so its removal does not change `covered`.
void SubscriptionIndex::leaveOut(const StatusKeys& list, const std::string& key)
{
    const auto index = mIndexes.find(&list);
    if (index != mIndexes.end() && index->second.keys.erase(key) != 0)
        --index->second.covered;
}
