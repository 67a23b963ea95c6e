#include "broker/Subscribers.h"

#include <algorithm>

void Subscribers::subscribed(int descriptor, const Connection::Sent& sent, TimePoint now, bool toAll)
{
    mSubscribers.try_emplace(
        descriptor, Subscriber{sent.handedOver - mPublished, mPublished, sent.acknowledged, now, toAll});
}

void Subscribers::cancelled(int descriptor)
{
    const auto subscriber = mSubscribers.find(descriptor);
    if (subscriber != mSubscribers.end())
        subscriber->second.toAll = false;
}

void Subscribers::left(int descriptor)
{
    mSubscribers.erase(descriptor);
}

void Subscribers::published(uint64_t wireBytes, uint64_t revision)
{
    mPublished += wireBytes;
    mSinceLook += wireBytes + messageOverhead;
    if (mSubscribers.empty())
        mKnownRevision = revision;
    else
        mWaiting.push_back({mPublished, revision});
}

bool Subscribers::lookIsDue() const
{
    constexpr uint64_t looksPerLimit = 8;
    return mSinceLook >= mLimits.notifyBytes / looksPerLimit;
}

// Waiting uses up the time that there is for it, which comes back slowly.
void Subscribers::passTime(TimePoint now)
{
    const TimePoint::duration passed = now - mLastLook;
    mLastLook = now;
    if (mWaits)
        mWaitLeft -= std::min(mWaitLeft, passed);
    else
        mWaitLeft = std::min<TimePoint::duration>(longestWait, mWaitLeft + passed / workPerWait);
}

void Subscribers::judge(int descriptor, Subscriber& subscriber, const Connection::Sent& sent, TimePoint now,
                        Verdict& verdict)
{
    // What was sent between its subscription and the notice of it was not counted.
    const bool hasTakenItsPart = !subscriber.toAll && sent.unsent == 0;
    if (sent.handedOver - subscriber.origin > mPublished || hasTakenItsPart)
        subscriber.origin = sent.handedOver - mPublished;
    subscriber.taken = sent.handedOver - subscriber.origin;

    const auto first = firstWaiting(subscriber);
    const auto waiting = static_cast<uint64_t>(mWaiting.end() - first);
    if (sent.acknowledged - subscriber.mark >= progress || waiting == 0)
    {
        subscriber.mark = sent.acknowledged;
        subscriber.markTime = now;
    }
    if (mPublished - subscriber.taken + waiting * messageOverhead <= mLimits.notifyBytes)
        return;
    if (!mHurry && mWaitLeft.count() > 0 && now - subscriber.markTime < patience)
    {
        verdict.wait = true;
        return;
    }
    const uint64_t known = first == mWaiting.begin() ? mKnownRevision : std::prev(first)->revision;
    verdict.hopeless.push_back({descriptor, waiting, known});
}

// The first notification that has not been handed over whole.
std::deque<Subscribers::Notification>::const_iterator
Subscribers::firstWaiting(const Subscriber& subscriber) const
{
    return std::upper_bound(mWaiting.begin(), mWaiting.end(), subscriber.taken,
                            [](uint64_t taken, const Notification& notification)
                            { return taken < notification.end; });
}

void Subscribers::forgetTaken()
{
    uint64_t takenByAll = mPublished;
    for (const auto& [descriptor, subscriber] : mSubscribers)
        takenByAll = std::min(takenByAll, subscriber.taken);
    while (!mWaiting.empty() && mWaiting.front().end <= takenByAll)
    {
        mKnownRevision = mWaiting.front().revision;
        mWaiting.pop_front();
    }
    mSinceLook = 0;
}
