#ifndef STATUSMANAGER_SUBSCRIPTIONS_H
#define STATUSMANAGER_SUBSCRIPTIONS_H

#include <algorithm>
#include <string>
#include <unordered_set>

#include "statusmanager/StatusTypes.h"

/// What a listener has subscribed to: in the order of subscription, and nothing twice. The index beside the
/// list finds a key among thousands as fast as among a few; every update is looked up for every listener.
class Subscriptions
{
public:
    bool contain(const std::string& key) const { return mIndex.count(key) != 0; }

    /// False if it is there already.
    bool add(const std::string& key)
    {
        if (!mIndex.insert(key).second)
            return false;
        mKeys.push_back(key);
        return true;
    }

    void remove(const std::string& key)
    {
        if (mIndex.erase(key) != 0)
            mKeys.erase(std::find(mKeys.begin(), mKeys.end(), key));
    }

private:
    StatusKeys mKeys;
    std::unordered_set<std::string> mIndex;
};

#endif
