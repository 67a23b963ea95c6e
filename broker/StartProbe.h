#ifndef BROKER_STARTPROBE_H
#define BROKER_STARTPROBE_H

#include "daemon/Clock.h"

/// Whether a starting client has had enough turns to notice the broker's subscription.
///
/// A post connection may not confirm the subscription for two reasons. The client has no such connection, or
/// it belongs to another, silent client: then waiting is useless. Or the machine is busy, as at boot, and the
/// client needs more time: then its first posts would be lost. One thread of the client serves both its
/// connections, in turns. So the broker sends PINGs on its request connection. Each answer proves a turn of
/// that thread, also for the post connection. A client that does not answer delays only itself.
class StartProbe
{
public:
    /// Greeting, READY and subscription take a turn or two each.
    static constexpr int enough = 8;

    /// A client that takes longer is given up.
    static constexpr std::chrono::seconds longest{30};

    /// Whether to send a PING.
    bool isDue() const { return !mIsUnderWay && mAnswers < enough; }
    void sent() { mIsUnderWay = true; }

    bool isUnderWay() const { return mIsUnderWay; }

    void answered()
    {
        mIsUnderWay = false;
        ++mAnswers;
    }

    /// The client does not answer PINGs.
    void giveUp()
    {
        mIsUnderWay = false;
        mAnswers = enough;
    }

    /// Whether the wait for this client is over.
    /// @param asked when the client began to wait
    bool isOver(TimePoint asked, TimePoint now) const { return mAnswers >= enough || now - asked >= longest; }

private:
    int mAnswers = 0;
    bool mIsUnderWay = false;
};

#endif
