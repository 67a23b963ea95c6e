#ifndef BROKER_OWNPROBE_H
#define BROKER_OWNPROBE_H

#include <algorithm>
#include <cstdint>

#include "daemon/Clock.h"

/// Finds out whether a post connection still holds a post of its own client. It is used where the barrier
/// waits only briefly or not at all. On busy cores the kernel may deliver a client's "Sync" before a post
/// that was written earlier. So the broker sends a PING, whose answer comes behind such a post. Only the
/// client that said "Sync" waits for the answer, and only briefly, so this costs no other client any
/// patience. A connection that does not answer is not asked again until it does.
class OwnProbe
{
public:
    static constexpr std::chrono::milliseconds longest{100};

    /// Whether to send a PING for this barrier.
    bool isDue(uint64_t barrier, TimePoint now) const { return mAsked < barrier && !isSilent(now); }

    void asked(uint64_t barrier, TimePoint now)
    {
        if (!owes())
            mSince = now;
        mAsked = barrier;
    }

    /// The answer has come. An answer without a question does not count.
    void answered(uint64_t barrier, TimePoint now)
    {
        mAnswered = std::max(mAnswered, std::min(barrier, mAsked));
        mSince = now;
    }

    /// The connection is closed.
    void end() { mAsked = mAnswered; }

    bool owes() const { return mAnswered < mAsked; }

    /// Whether the answer can still end a wait.
    bool isAwaited(TimePoint now) const { return owes() && !isSilent(now); }

    /// Whether it was asked for this barrier and has not answered.
    bool lacks(uint64_t barrier) const { return mAsked >= barrier && mAnswered < barrier; }

private:
    bool isSilent(TimePoint now) const { return owes() && now - mSince >= longest; }

    uint64_t mAsked = 0; ///< for barriers up to this number
    uint64_t mAnswered = 0;
    TimePoint mSince{}; ///< of the oldest answer that it owes
};

#endif
