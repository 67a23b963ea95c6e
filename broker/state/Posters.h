#ifndef BROKER_STATE_POSTERS_H
#define BROKER_STATE_POSTERS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "protocol/Poster.h"

/// The clients that have posted values. Each is there as long as it is held: by its connection, by
/// each value that it was the last to post or to change, and by those that end with it. So there are never
/// more than that, whatever comes and goes. Those that differ only by their process share their names.
class Posters
{
public:
    using Id = uint32_t;
    static constexpr Id nobody = 0; ///< unknown; need not be held

    /// Held once.
    Id add(const BrokerProtocol::Poster& poster);

    void hold(Id id)
    {
        if (id != nobody)
            ++mEntries[id - 1].holds;
    }
    void release(Id id)
    {
        if (id != nobody && --mEntries[id - 1].holds == 0)
            remove(id);
    }

    /// More is known of it now: its process, or its service.
    void describe(Id id, const BrokerProtocol::Poster& poster);

    BrokerProtocol::Poster at(Id id) const;

    std::optional<uint32_t> userOf(Id id) const
    {
        return id == nobody ? std::nullopt : mEntries[id - 1].names->first.uid;
    }

    /// Whether they are of the same user and service, for which the kernel vouches.
    bool areOfOneService(Id one, Id other) const;

    std::size_t count() const { return mEntries.size() - mFree.size(); }

private:
    struct ByNames
    {
        bool operator()(const BrokerProtocol::Poster& one, const BrokerProtocol::Poster& other) const
        {
            return namesOf(one) < namesOf(other);
        }
    };
    using Names = std::map<BrokerProtocol::Poster, uint32_t, ByNames>; // without pid; and how many have them

    struct Entry
    {
        Names::iterator names;
        uint32_t pid;
        uint32_t holds;
    };

    Names::iterator enter(BrokerProtocol::Poster poster);
    void leave(Names::iterator names);
    void remove(Id id);

public:
    /// Memory that a poster takes beside its names.
    static constexpr std::size_t entryBytes = sizeof(Entry);

private:
    Names mNames;
    std::vector<Entry> mEntries; // at its id, counted from 1
    std::vector<Id> mFree;
};

#endif
