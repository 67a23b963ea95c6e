#ifndef BROKER_UNFINISHED_H
#define BROKER_UNFINISHED_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "broker/Refusals.h"

/// Messages of which the last frame has not come yet. libzmq keeps their frames, as many as there may be, and
/// shows none; but what it has read of a connection and not given out as a message must be part of one.
class Unfinished
{
public:
    /// Tells when a look makes sense: when all whole messages that were there at the last look have been
    /// received since. That is so when nothing was left at some moment. It is also so when one connection has
    /// given more than can be queued of it, because libzmq takes from the connections in turn.
    class Turn
    {
    public:
        void nothingIsLeft() { mIsOver = true; }

        /// @param messages that one connection has given since the last look
        /// @param queueLength how many of it libzmq holds ready at most
        void received(uint64_t messages, uint64_t queueLength)
        {
            mIsOver = mIsOver || messages > queueLength + 1;
        }

        bool takeIsOver() { return std::exchange(mIsOver, false); }

    private:
        bool mIsOver = false;
    };

    /// A part of a message was received from this connection.
    void received(uint64_t bytes) { mReceived += bytes; }

    /// That was its end. Returns the number of messages since the last look.
    uint64_t ended() { return ++mMessages; }

    enum class Verdict
    {
        Fine,
        Long,   ///< worth to be looked at again soon
        Endless ///< longer than the limit
    };

    /// To be called now and then, when the Turn is over.
    Verdict look(int descriptor, std::size_t limit);

    /// To be called when the Turn is not over. Whole messages count, too.
    Verdict glance(int descriptor, std::size_t limit) const;

    /// Looks at all connections and cuts off those whose message is endless. True if that is to be done again
    /// soon: somebody is in the middle of a long one, or it is too early to tell.
    /// @param peers by descriptor, with a member `unfinished`
    /// @param what  is being received
    /// @param queueBytes so much of one connection may be ready to be received
    template <typename Peers>
    static bool cutOffEndless(Peers& peers, Turn& turn, const std::string& what, std::size_t limit,
                              std::size_t queueBytes, Refusals& refusals)
    {
        const bool isOver = turn.takeIsOver();
        bool isLong = !isOver;
        for (auto& [descriptor, peer] : peers)
        {
            const std::size_t most = isOver ? limit : limit + queueBytes;
            const Verdict verdict =
                isOver ? peer.unfinished.look(descriptor, most) : peer.unfinished.glance(descriptor, most);
            isLong = isLong || verdict == Verdict::Long;
            if (verdict == Verdict::Endless)
                cutOff(descriptor,
                       isOver ? "A " + what + " that does not end"
                              : "Who sends faster than a " + what + " is taken",
                       most, refusals);
        }
        return isLong;
    }

private:
    static void cutOff(int descriptor, const std::string& why, std::size_t limit, Refusals& refusals);

    uint64_t mMessages = 0; // since the last look
    uint64_t mReceived = 0;
    uint64_t mReadBefore = 0; // bytes that libzmq had read at the last look
};

#endif
