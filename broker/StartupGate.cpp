#include "broker/StartupGate.h"

#include <algorithm>
#include <iterator>

bool StartupGate::hold(const Connection& connection, TimePoint now)
{
    if (mLetThrough.count(connection) != 0)
        return false;
    mHeld.emplace(connection, now);
    return true;
}

void StartupGate::requestClosed(const Connection& connection)
{
    mLetThrough.erase(connection);
    mWithoutPost.erase(connection);
    mHeld.erase(connection);
}

bool StartupGate::settled(TimePoint since, TimePoint now) const
{
    return now - std::max(since, mLastPostConnected) >= settleTime;
}

std::vector<StartupGate::Connection> StartupGate::release(int postPeers, int requestPeers, TimePoint now)
{
    std::vector<Connection> released;
    if (mHeld.empty())
        return released;
    dropClosed(mWithoutPost);
    const bool caughtUp = postPeers >= requestPeers - static_cast<int>(mWithoutPost.size());
    for (auto held = mHeld.begin(); held != mHeld.end();)
    {
        const auto& [connection, since] = *held;
        const bool regular = caughtUp && settled(since, now);
        if (!regular && now - since < longestHold)
        {
            ++held;
            continue;
        }
        remember(connection, caughtUp);
        released.push_back(connection);
        held = mHeld.erase(held);
    }
    if (!released.empty())
        dropClosed(mLetThrough);
    return released;
}

void StartupGate::remember(const Connection& connection, bool hasPost)
{
    if (!mIsOpen(connection))
        return;
    mLetThrough.insert(connection);
    if (!hasPost)
        mWithoutPost.insert(connection);
}

void StartupGate::dropClosed(std::set<Connection>& connections)
{
    for (auto connection = connections.begin(); connection != connections.end();)
        connection = mIsOpen(*connection) ? std::next(connection) : connections.erase(connection);
}

std::vector<StartupGate::Connection> StartupGate::releaseAll()
{
    std::vector<Connection> released;
    for (const auto& [connection, since] : mHeld)
        released.push_back(connection);
    mHeld.clear();
    return released;
}
