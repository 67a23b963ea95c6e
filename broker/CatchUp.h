#ifndef BROKER_CATCHUP_H
#define BROKER_CATCHUP_H

#include <cstdint>
#include <deque>
#include <optional>

#include "daemon/Clock.h"

/// Remembers the revision from which a new subscriber must catch up.
///
/// A client subscribes to notifications only after its first SyncAck. It misses what is published in between,
/// although it may have read an older value already. When a subscription arrives, only its subscriber gets
/// the values that changed since that SyncAck.
///
/// A subscription does not name its client, and a reconnecting client subscribes without a SyncAck. So each
/// subscription is answered as if it came from the client acknowledged longest ago. The client acknowledged
/// last counts as served, but is remembered a little longer. So a new subscriber may get values that its
/// listeners know already, but never too few.
///
/// Returning subscribers catch up in the same way: after their connection was closed, or after a broker
/// restart. The broker cannot know when all of them are back, so it remembers them for a fixed time.
class CatchUp
{
public:
    /// An acknowledged client subscribes within this time, or never.
    static constexpr std::chrono::seconds longestWait{30};

    /// How long to remember a client that seems to be served: the subscription may have been another
    /// client's, and on a busy machine its own may take seconds.
    static constexpr std::chrono::seconds graceTime{10};

    /// Clients acknowledged within this time are recorded as one group, at its beginning. So any number of
    /// clients needs only a bounded record.
    static constexpr std::chrono::milliseconds together{100};

    void acknowledged(uint64_t revision, TimePoint now);

    /// Subscribers that know the state up to this revision have lost their connection. They will come back.
    void disconnected(uint64_t revision, TimePoint now, std::chrono::seconds memory);

    /// A subscription has arrived.
    /// @returns the revision from which its subscriber must catch up; nothing if no client is waiting
    std::optional<uint64_t> subscribed(TimePoint now);

    /// The lowest revision that a later subscribed() may return; nothing if no client is waiting.
    std::optional<uint64_t> leastAwaited(TimePoint now);

private:
    /// Clients that were acknowledged together.
    struct Awaited
    {
        uint64_t revision;
        TimePoint since;
        TimePoint last;
        TimePoint graceEnd{}; ///< for the clients that seem to be served
        unsigned waiting = 1;

        bool isOld(TimePoint now) const
        {
            return (waiting == 0 || last + longestWait <= now) && graceEnd <= now;
        }
    };

    struct Returning
    {
        uint64_t revision;
        TimePoint forgotten;
    };

    void forgetOld(TimePoint now);
    void markLastServed(TimePoint now);

    std::deque<Awaited> mAwaited; // oldest first, so their revisions ascend
    std::optional<Returning> mReturning;
};

#endif
