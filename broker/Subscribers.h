#ifndef BROKER_SUBSCRIBERS_H
#define BROKER_SUBSCRIBERS_H

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "broker/Clock.h"
#include "broker/Connection.h"
#include "broker/Options.h"

/// How far each subscriber is behind what has been published.
///
/// libzmq queues notifications for each subscriber and tells nothing about it: it either drops silently for a
/// slow one or refuses to send to all. But what it has taken out of a queue it has handed to the kernel, and
/// the kernel counts. The difference to what has been published is what waits in the broker's memory.
///
/// Of one that is sent only a part, it is not known how much that is. It has taken everything whenever the
/// kernel has nothing unsent for it; until then, all that was published counts as if it were sent.
///
/// A subscriber that is behind by more than the limit is waited for while it keeps taking; so one that is
/// only slower than a burst loses nothing. The time for that is limited, for all together, because nobody is
/// served meanwhile. One that does not take, or too slowly for that, is hopeless: it is to be cut off, which
/// frees the memory, and when it is back it connects again and is told of all changes that it missed.
class Subscribers
{
public:
    /// Waited for is whoever takes this much in this time. That is told by what its kernel acknowledges,
    /// which grows with each few that it reads; libzmq hands over nothing until a third of the kernel's
    /// buffer is free, which may be a megabyte. The kernels take some megabytes for one that has stopped, so
    /// most of its time is over before the limit is reached and the others wait for it.
    static constexpr uint64_t progress = uint64_t{64} * 1024;
    static constexpr std::chrono::milliseconds patience{250};

    /// Waited is never longer than this, and again only for as long as the broker has worked without waiting
    /// since, divided by this.
    static constexpr std::chrono::milliseconds longestWait{500};
    static constexpr int workPerWait = 4;

    /// What a waiting message takes beside its bytes, about.
    static constexpr uint64_t messageOverhead = 128;

    explicit Subscribers(const Limits& limits) : mLimits(limits) {}

    /// A subscriber's first subscription; further ones do not count.
    /// @param sent to it so far
    /// @param toAll it is sent all notifications
    void subscribed(int descriptor, const Connection::Sent& sent, TimePoint now, bool toAll = true);

    /// It is no longer sent all notifications.
    void cancelled(int descriptor);

    void left(int descriptor);

    /// @param wireBytes what was sent to each of them
    /// @param revision  of the state that the notification brings its receivers to
    void published(uint64_t wireBytes, uint64_t revision);

    /// Whether enough has been published to look again.
    bool lookIsDue() const;

    struct Hopeless
    {
        int descriptor;
        uint64_t lostNotifications;
        uint64_t knownRevision; ///< of the last notification that it can still receive
    };

    struct Verdict
    {
        bool wait = false; ///< somebody is behind, but taking: look again in a moment, before anything else
        std::vector<Hopeless> hopeless;
    };

    /// @param sentTo tells what has been sent to a descriptor; nothing if that is closed
    template <typename SentTo>
    Verdict look(SentTo sentTo, TimePoint now)
    {
        Verdict verdict;
        passTime(now);
        for (auto& [descriptor, subscriber] : mSubscribers)
        {
            if (const std::optional<Connection::Sent> sent = sentTo(descriptor))
                judge(descriptor, subscriber, *sent, now, verdict);
        }
        forgetTaken();
        mWaits = verdict.wait;
        return verdict;
    }

    /// From now on, nobody is waited for.
    void hurry() { mHurry = true; }

    std::size_t size() const { return mSubscribers.size(); }

private:
    struct Notification
    {
        uint64_t end; ///< position behind it in all that was published
        uint64_t revision;
    };

    struct Subscriber
    {
        uint64_t origin; ///< bytes handed over for it before position 0; wraps
        uint64_t taken;  ///< position up to which it has been handed over
        uint64_t mark;   ///< bytes acknowledged at markTime
        TimePoint markTime;
        bool toAll;
    };

    void passTime(TimePoint now);
    void judge(int descriptor, Subscriber& subscriber, const Connection::Sent& sent, TimePoint now,
               Verdict& verdict);
    std::deque<Notification>::const_iterator firstWaiting(const Subscriber& subscriber) const;
    void forgetTaken();

    const Limits& mLimits;
    std::map<int, Subscriber> mSubscribers; // by descriptor
    std::deque<Notification> mWaiting;      // those that somebody may not have been handed yet
    uint64_t mKnownRevision = 0;            // of the last one that is not among them
    uint64_t mPublished = 0;
    uint64_t mSinceLook = 0; // bytes published since the last look
    TimePoint mLastLook{};
    bool mWaits = false; // since the last look
    TimePoint::duration mWaitLeft = longestWait;
    bool mHurry = false;
};

#endif
