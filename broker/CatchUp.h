#ifndef BROKER_CATCHUP_H
#define BROKER_CATCHUP_H

#include <cstdint>
#include <deque>
#include <optional>

#include "broker/base/Clock.h"

/// Remembers from which revision on a new subscriber has to be told of changes.
///
/// A client subscribes to notifications only after its first SyncAck, so what is published in between passes
/// it by, although it may have read an older value already. When a subscription arrives, its subscriber alone
/// gets the values that changed since that SyncAck. A subscription does not say whose it is, and clients that
/// reconnect subscribe without a SyncAck before it; so each is answered as if it were that of the client
/// acknowledged longest ago, and the one acknowledged last is taken to be served, but kept in mind a little
/// longer. So a new subscriber may be told of values that its listeners know, but never of too few.
///
/// The same serves those that come back: subscribers that were closed, and those of an earlier run of the
/// broker. As nobody knows whether they are all back, they are kept in mind for a fixed time.
class CatchUp
{
public:
    /// A client that has been acknowledged has subscribed after this time, or never will.
    static constexpr std::chrono::seconds longestWait{30};

    /// How long one that seems to be served is kept in mind: the subscription may have been another's.
    static constexpr std::chrono::seconds graceTime{1};

    /// Clients that were acknowledged within such a time count as acknowledged together, at the beginning of
    /// it. So their number has no bound, but what is remembered of them has.
    static constexpr std::chrono::milliseconds together{100};

    void acknowledged(uint64_t revision, TimePoint now);

    /// Subscribers that know the state up to this revision have lost their connection and will come back.
    void disconnected(uint64_t revision, TimePoint now, std::chrono::seconds memory);

    /// A subscription has arrived: the revision since which its subscriber is to be told of changes; nothing
    /// if no client is waiting.
    std::optional<uint64_t> subscribed(TimePoint now);

    /// The least revision that a later subscribed() may return; nothing if no client is waiting.
    std::optional<uint64_t> leastAwaited(TimePoint now);

private:
    /// Clients that were acknowledged together.
    struct Awaited
    {
        uint64_t revision;
        TimePoint since;
        TimePoint last;
        TimePoint graceEnd{}; ///< of those that seem to be served
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
