#include "broker/state/Posters.h"

using BrokerProtocol::Poster;

Posters::Id Posters::add(const Poster& poster)
{
    mFree.reserve(mEntries.size() + 1); // remove() must not throw
    const Entry entry{enter(poster), poster.pid, 1};
    if (mFree.empty())
    {
        mEntries.push_back(entry);
        return static_cast<Id>(mEntries.size());
    }
    const Id id = mFree.back();
    mFree.pop_back();
    mEntries[id - 1] = entry;
    return id;
}

void Posters::describe(Id id, const Poster& poster)
{
    if (id == nobody)
        return;
    const auto before = mEntries[id - 1].names;
    mEntries[id - 1].names = enter(poster);
    mEntries[id - 1].pid = poster.pid;
    leave(before);
}

Poster Posters::at(Id id) const
{
    if (id == nobody)
        return {};
    Poster poster = mEntries[id - 1].names->first;
    poster.pid = mEntries[id - 1].pid;
    return poster;
}

bool Posters::areOfOneService(Id one, Id other) const
{
    if (one == other)
        return true;
    if (one == nobody || other == nobody)
        return false;
    const Poster& first = mEntries[one - 1].names->first;
    const Poster& second = mEntries[other - 1].names->first;
    return std::tie(first.user, first.uid, first.service) ==
           std::tie(second.user, second.uid, second.service);
}

Posters::Names::iterator Posters::enter(Poster poster)
{
    poster.pid = 0;
    const auto place = mNames.try_emplace(std::move(poster)).first;
    ++place->second;
    return place;
}

void Posters::leave(Names::iterator names)
{
    if (--names->second == 0)
        mNames.erase(names);
}

void Posters::remove(Id id)
{
    leave(mEntries[id - 1].names);
    mFree.push_back(id);
}
