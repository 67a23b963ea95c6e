#ifndef BROKER_UNFINISHED_H
#define BROKER_UNFINISHED_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "broker/Refusals.h"

/// Messages of which the last frame has not come yet. libzmq keeps their frames, as many as there may be, and
/// shows none; but what it has read of a connection and not given out as a message must be part of one.
class Unfinished
{
public:
    /// A message was received from this connection.
    void received(uint64_t bytes) { mReceived += bytes; }

    enum class Verdict
    {
        Fine,
        Long,   ///< worth to be looked at again soon
        Endless ///< longer than the limit
    };

    /// To be called now and then, when since the last call everything has been received that was there.
    Verdict look(int descriptor, std::size_t limit);

    /// Looks at all connections and cuts off those whose message is endless. True if somebody is in the
    /// middle of a long one.
    /// @param peers by descriptor, with a member `unfinished`
    /// @param what  is being received
    template <typename Peers>
    static bool cutOffEndless(Peers& peers, const std::string& what, std::size_t limit, Refusals& refusals)
    {
        bool isLong = false;
        for (auto& [descriptor, peer] : peers)
        {
            const Verdict verdict = peer.unfinished.look(descriptor, limit);
            isLong = isLong || verdict == Verdict::Long;
            if (verdict == Verdict::Endless)
                cutOff(descriptor, what, limit, refusals);
        }
        return isLong;
    }

private:
    static void cutOff(int descriptor, const std::string& what, std::size_t limit, Refusals& refusals);

    uint64_t mReceived = 0;
    uint64_t mReadBefore = 0; // bytes that libzmq had read at the last look
};

#endif
