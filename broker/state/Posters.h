#ifndef BROKER_STATE_POSTERS_H
#define BROKER_STATE_POSTERS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "protocol/Poster.h"

/// The clients that have posted values. An entry lives while it is held. Its holders are its connection, each
/// value that it last posted or changed, and the owner of values that end with it. So the number of entries
/// is bounded. Entries that differ only by process share their names.
class Posters
{
public:
    using Id = uint32_t;
    static constexpr Id nobody = 0; ///< unknown; need not be held

    /// The entry is held once.
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

    /// More is known about the client now: its process, or its service.
    void describe(Id id, const BrokerProtocol::Poster& poster);

    BrokerProtocol::Poster at(Id id) const;

    std::optional<uint32_t> userOf(Id id) const
    {
        return id == nobody ? std::nullopt : mEntries[id - 1].names->first.uid;
    }

    /// Whether both have the same user and service, for which the kernel vouches.
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
    using Names = std::map<BrokerProtocol::Poster, uint32_t, ByNames>; // without pid; the number counts their
                                                                       // entries

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
    /// Memory of an entry, apart from its names.
    static constexpr std::size_t entryBytes = sizeof(Entry);

private:
    Names mNames;
    std::vector<Entry> mEntries; // at its id, counted from 1
    std::vector<Id> mFree;
};

#endif
