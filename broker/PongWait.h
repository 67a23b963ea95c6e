#ifndef BROKER_PONGWAIT_H
#define BROKER_PONGWAIT_H

#include <algorithm>
#include <cstdint>
#include <deque>

#include "broker/Patience.h"

/// Requests wait for one post connection here: for its answers to PINGs, each behind the posts before a
/// barrier. Barriers are numbered in their order.
///
/// A request waits for so long after its own barrier was opened, whatever others wait for: answers that come,
/// but late, do not add up.
class PongWait
{
public:
    using Duration = Patience::Duration;

    /// More PINGs are not under way at once: the next one goes when an answer has come.
    static constexpr std::size_t mostUnderWay = 8;

    /// More than a socket buffer of small messages: not waiting for so much would hide what its client
    /// posted.
    static constexpr std::size_t muchUnread = std::size_t{32} * 1024;

    explicit PongWait(TimePoint now) : mPatience(now) {}

    /// A barrier is opened, and of what was posted before it not all may have come. Where answers are owed
    /// for too long, nothing is waited for, unless much has arrived and was not read.
    /// @param isForSync only a "Sync" waits for that
    /// @param unread bytes that have arrived
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

    /// The broker has read from it. Until it has read all that had arrived when a barrier was opened, the
    /// connection is not to blame, and is not sent the PING.
    void read(std::size_t bytes, TimePoint now)
    {
        mPatience.received(bytes);
        if (isUnread())
            mReadAt = now;
        mUnread -= std::min(mUnread, bytes);
    }

    bool isUnread() const { return mUnread != 0; }

    /// The barrier for which a PING is to be sent now; 0: none.
    uint64_t pingDue() const
    {
        const uint64_t last = owes() ? mUnderWay.back().barrier : mPonged;
        return mWanted > last && mUnderWay.size() < mostUnderWay ? mWanted : 0;
    }

    /// It is sent, or will be as soon as isUnread() ends.
    void pinged(TimePoint now) { mUnderWay.push_back({mWanted, now, mIsForSync}); }

    /// An answer is owed.
    bool owes() const { return !mUnderWay.empty(); }

    /// An answer is owed, and not for too long.
    bool isAwaited() const { return owes() && !mHasGivenUp; }

    /// Nothing is waited for until it answers, or much arrives.
    bool hasGivenUp() const { return mHasGivenUp; }

    /// Not all that had arrived could be read. Its answer may be among that, so it is waited for again.
    void wasNotRead() { mHasGivenUp = false; }

    /// A "Sync" waits for its answer for less than this.
    bool isShorterThan(Duration time) const { return mHasGivenUp || Patience::syncFactor * mLimit < time; }

    /// The answer has come to a PING. False if it is owed none.
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
    /// @param opened when the barrier was
    TimePoint endFor(uint64_t barrier, bool isSync, TimePoint opened) const
    {
        if (mWanted < barrier || mPonged >= barrier || (mIsForSync && !isSync))
            return TimePoint::min();
        const int factor = isSync ? Patience::syncFactor : 1;
        const TimePoint latest = opened + factor * Patience::longest;
        return isUnread() ? latest : std::min(latest, std::max(opened, mReadAt) + factor * mLimit);
    }

    /// Of what had arrived before this barrier not all is read.
    bool isUnreadBefore(uint64_t barrier) const
    {
        return isUnread() && mWanted >= barrier && mPonged < barrier;
    }

    /// When judge() is to be called.
    TimePoint due() const
    {
        if (!isAwaited() || isUnread())
            return TimePoint::max();
        return oldestAsked() + (mHasDisappointed ? Patience::syncFactor : 1) * mLimit;
    }

    /// Judges what is owed. Returns what the wait costs all connections together.
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

    /// It is gone. Returns what the wait has cost all connections together.
    Duration abandon(TimePoint now) { return owes() ? pay(now) : Duration(0); }

private:
    struct UnderWay
    {
        uint64_t barrier;
        TimePoint sent;
        bool isForSync;
    };

    // Since when the oldest answer is owed, and could have been read.
    TimePoint oldestAsked() const { return std::max(mUnderWay.front().sent, mReadAt); }

    bool isLacking() const { return mPonged < mWanted; }

    // For the time since the oldest PING that is owed an answer, each moment once. A wait only for a "Sync"
    // costs less.
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
    uint64_t mPonged = 0;                ///< up to this one everything has come
    bool mIsForSync = false;             ///< all that is wanted
    std::deque<UnderWay> mUnderWay;
    TimePoint mPaidUntil{};
    TimePoint mReadAt{}; ///< the last of what was unread
    std::size_t mUnread = 0;
    bool mHasDisappointed = false; ///< queries, since the last answer
    bool mHasGivenUp = false;      ///< nothing is waited for until it answers
};

#endif
