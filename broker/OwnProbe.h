#ifndef BROKER_OWNPROBE_H
#define BROKER_OWNPROBE_H

#include <algorithm>
#include <cstdint>

#include "broker/base/Clock.h"

/// Whether a post connection holds something back for its own client, though the barrier does not wait for
/// it, or only briefly. On busy cores the kernel may deliver the "Sync" of a client before a post that was
/// written earlier. So a PING is sent, whose answer comes behind such a post. Only the client that said
/// "Sync" waits for it, and not for long, so it costs nobody patience. One that does not answer is not asked
/// again until it does.
class OwnProbe
{
public:
    static constexpr std::chrono::milliseconds longest{100};

    /// A PING is to be sent for this barrier.
    bool isDue(uint64_t barrier, TimePoint now) const { return mAsked < barrier && !isSilent(now); }

    void asked(uint64_t barrier, TimePoint now)
    {
        if (!owes())
            mSince = now;
        mAsked = barrier;
    }

    /// The answer has come. One that was not asked for does not count.
    void answered(uint64_t barrier, TimePoint now)
    {
        mAnswered = std::max(mAnswered, std::min(barrier, mAsked));
        mSince = now;
    }

    /// The connection is closed.
    void end() { mAsked = mAnswered; }

    bool owes() const { return mAnswered < mAsked; }

    /// It was asked for this barrier, and has not answered.
    bool lacks(uint64_t barrier) const { return mAsked >= barrier && mAnswered < barrier; }

private:
    bool isSilent(TimePoint now) const { return owes() && now - mSince >= longest; }

    uint64_t mAsked = 0; ///< for the barriers up to this one
    uint64_t mAnswered = 0;
    TimePoint mSince{}; ///< owes an answer
};

#endif
