#ifndef BROKER_LOSTPOSTS_H
#define BROKER_LOSTPOSTS_H

#include <cstdint>

#include "broker/base/Clock.h"

/// Decides whether a "Sync" may confirm the posts before it. Some may have died with an earlier broker, or
/// with a post connection that this one closed for want of memory. Whose those were nobody knows, so each
/// client is told once.
class LostPosts
{
public:
    /// Clients that were there before a broker that is started again come back within this time: they try
    /// each 100 to 200 ms, on a busy machine somewhat later.
    static constexpr std::chrono::milliseconds returnTime{500};

    /// @param serving since when the broker serves
    explicit LostPosts(TimePoint serving) : mServing(serving) {}

    /// Whether clients of an earlier broker may still come back.
    bool areReturning(TimePoint now) const { return now < mServing + returnTime; }

    /// Posts have been lost.
    void lost() { ++mCount; }

    /// How often posts have been lost: a client that knows of less is told.
    uint64_t count() const { return mCount; }

private:
    TimePoint mServing;
    uint64_t mCount = 0;
};

#endif
