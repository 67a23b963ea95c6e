#include "broker/StartupGate.h"

#include <algorithm>

bool StartupGate::hold(const Connection& connection, TimePoint now)
{
    if (mLetThrough.count(connection) != 0)
        return false;
    if (mHeld.size() < mostHeld)
        mHeld.push_back({connection, now});
    return true;
}

void StartupGate::requestClosed(const Connection& connection)
{
    mLetThrough.erase(connection);
    mWithoutPost.erase(connection);
    mHeld.erase(std::remove_if(mHeld.begin(), mHeld.end(),
                               [&](const Held& held) { return held.connection == connection; }),
                mHeld.end());
}

bool StartupGate::settled(const Held& held, TimePoint now) const
{
    return now - std::max(held.since, mLastPostConnected) >= settleTime;
}

std::vector<StartupGate::Connection> StartupGate::release(int postPeers, int requestPeers, TimePoint now)
{
    const bool caughtUp = postPeers >= requestPeers - static_cast<int>(mWithoutPost.size());
    std::vector<Connection> released;
    std::vector<Held> kept;
    for (const Held& held : mHeld)
    {
        const bool regular = caughtUp && settled(held, now);
        if (!regular && now - held.since < longestHold)
        {
            kept.push_back(held);
            continue;
        }
        if (!caughtUp)
            mWithoutPost.insert(held.connection);
        mLetThrough.insert(held.connection);
        released.push_back(held.connection);
    }
    mHeld.swap(kept);
    return released;
}

std::vector<StartupGate::Connection> StartupGate::releaseAll()
{
    std::vector<Connection> released;
    for (const Held& held : mHeld)
        released.push_back(held.connection);
    mHeld.clear();
    return released;
}
