#ifndef BROKER_PONGWAIT_H
#define BROKER_PONGWAIT_H

#include <algorithm>
#include <cstdint>
#include <deque>

#include "broker/Patience.h"

/// How requests wait for one post connection to answer its PINGs. Each PING follows the posts before one
/// barrier. Barriers are numbered in order.
///
/// Each request's wait starts when its own barrier opens, whatever other requests wait for. So answers that
/// come late do not add up.
class PongWait
{
public:
    using Duration = Patience::Duration;

    /// The most PINGs on their way at once. The next is sent after an answer.
    static constexpr std::size_t mostUnderWay = 8;

    /// More than a socket buffer of small messages. Not waiting for this much would hide what the client has
    /// posted.
    static constexpr std::size_t muchUnread = std::size_t{32} * 1024;

    explicit PongWait(TimePoint now) : mPatience(now) {}

    /// A barrier opens, and posts made before it may still be missing. If the connection was given
    /// up, nothing is waited for, unless much data has arrived unread.
    /// @param isForSync only a "Sync" waits for this barrier
    /// @param unread bytes that have arrived and are not read
    /// @param shared patience that all connections together have left
    void want(uint64_t barrier, bool isForSync, std::size_t unread, Duration shared, TimePoint now)
    {
        mHasGivenUp = mHasGivenUp && unread < muchUnread;
        if (mHasGivenUp)
            return;
        mUnread = std::max(mUnread, unread);
        mLimit = mPatience.limit(shared, now);
        mIsForSync = isForSync && (mIsForSync || !isLacking());
        mWanted = barrier;
    }

    /// The broker has read from the connection. Until it has read everything that had arrived before the
    /// barrier, the connection is not to blame, and gets no PING.
    void read(std::size_t bytes, TimePoint now)
    {
        mPatience.received(bytes);
        if (isUnread())
            mReadAt = now;
        mUnread -= std::min(mUnread, bytes);
    }

    bool isUnread() const { return mUnread != 0; }

    /// The barrier for which to send a PING now; 0: none.
    uint64_t pingDue() const
    {
        const uint64_t last = owes() ? mUnderWay.back().barrier : mPonged;
        return mWanted > last && mUnderWay.size() < mostUnderWay ? mWanted : 0;
    }

    /// The PING is sent, or will be as soon as isUnread() ends.
    void pinged(TimePoint now) { mUnderWay.push_back({mWanted, now, mIsForSync}); }

    /// Whether an answer is missing.
    bool owes() const { return !mUnderWay.empty(); }

    /// Whether an answer is missing and still waited for.
    bool isAwaited() const { return owes() && !mHasGivenUp; }

    /// Whether nothing is waited for until the connection answers, or much data arrives.
    bool hasGivenUp() const { return mHasGivenUp; }

    /// The broker could not read everything that had arrived. The answer may be part of that, so it is
    /// awaited again.
    void wasNotRead() { mHasGivenUp = false; }

    /// Whether a "Sync" waits for the answer for less than this time.
    bool isShorterThan(Duration time) const { return mHasGivenUp || Patience::syncFactor * mLimit < time; }

    /// A PING was answered. Returns false if none was waiting for an answer.
    /// @param cost what the wait costs all connections together
    bool ponged(uint64_t barrier, TimePoint now, Duration& cost)
    {
        const auto found = std::find_if(mUnderWay.begin(), mUnderWay.end(),
                                        [=](const UnderWay& ping) { return ping.barrier == barrier; });
        if (found == mUnderWay.end())
            return false;
        cost = pay(now);
        mPatience.answered(std::chrono::duration_cast<Duration>(now - std::max(found->sent, mReadAt)));
        mUnderWay.erase(mUnderWay.begin(), found + 1); // answers come in the order of the PINGs
        mPonged = barrier;
        mHasDisappointed = false;
        mHasGivenUp = false;
        return true;
    }

    /// Until when a request behind this barrier waits; TimePoint::min() if it does not.
    /// @param opened when the barrier opened
    TimePoint endFor(uint64_t barrier, bool isSync, TimePoint opened) const
    {
        if (mWanted < barrier || mPonged >= barrier || (mIsForSync && !isSync))
            return TimePoint::min();
        const int factor = isSync ? Patience::syncFactor : 1;
        const TimePoint latest = opened + factor * Patience::longest;
        return isUnread() ? latest : std::min(latest, std::max(opened, mReadAt) + factor * mLimit);
    }

    /// Whether data that had arrived before this barrier is still unread.
    bool isUnreadBefore(uint64_t barrier) const
    {
        return isUnread() && mWanted >= barrier && mPonged < barrier;
    }

    /// When to call judge().
    TimePoint due() const
    {
        if (!isAwaited() || isUnread())
            return TimePoint::max();
        return oldestAsked() + (mHasDisappointed ? Patience::syncFactor : 1) * mLimit;
    }

    /// Judges overdue answers. Returns what the wait costs all connections together.
    Duration judge(TimePoint now)
    {
        if (now < due())
            return Duration(0);
        const Duration cost = pay(now);
        if (mHasDisappointed)
            mHasGivenUp = true;
        else
            mPatience.disappointed();
        mHasDisappointed = true;
        return cost;
    }

    /// The connection is gone. Returns what the wait has cost all connections together.
    Duration abandon(TimePoint now) { return owes() ? pay(now) : Duration(0); }

private:
    struct UnderWay
    {
        uint64_t barrier;
        TimePoint sent;
        bool isForSync;
    };

    // Since when the oldest missing answer has been awaited, and could have been read.
    TimePoint oldestAsked() const { return std::max(mUnderWay.front().sent, mReadAt); }

    bool isLacking() const { return mPonged < mWanted; }

    // Pays for the time since the oldest unanswered PING, each moment once. A wait for a "Sync" alone costs
    // less.
    Duration pay(TimePoint now)
    {
        const TimePoint from = std::max(oldestAsked() + Patience::shortest, mPaidUntil);
        if (now <= from || isUnread())
            return Duration(0);
        const TimePoint endOfQueries = mUnderWay.front().isForSync ? from : oldestAsked() + mLimit;
        const TimePoint middle = std::clamp(endOfQueries, from, now);
        mPaidUntil = now;
        return mPatience.spend(
            std::chrono::duration_cast<Duration>((middle - from) + (now - middle) / Patience::syncFactor),
            now);
    }

    Patience mPatience;
    Duration mLimit = Patience::atFirst; ///< of a query
    uint64_t mWanted = 0;                ///< the last barrier that is waited for
    uint64_t mPonged = 0;                ///< everything before this barrier has come
    bool mIsForSync = false;             ///< all missing barriers concern a "Sync" only
    std::deque<UnderWay> mUnderWay;
    TimePoint mPaidUntil{};
    TimePoint mReadAt{}; ///< the last of the data that was unread
    std::size_t mUnread = 0;
    bool mHasDisappointed = false; ///< answers for queries are overdue since the last answer
    bool mHasGivenUp = false;      ///< nothing is waited for until the connection answers
};

#endif
