#ifndef BROKER_STARTPROBE_H
#define BROKER_STARTPROBE_H

#include "broker/base/Clock.h"

/// Whether a starting client has had its turns to take notice of the broker's subscription.
///
/// A client whose post connection does not show that it has the subscription may have no such connection, or
/// one of others is silent: then it is not waited for. Or its machine is busy, as at boot, and it needs more
/// time: then its first posts would be lost. One thread of the client serves both of its connections, in
/// turns. So a PING on its request connection tells: with each answer that thread has had a turn, also for
/// the post connection. A client that does not answer delays only itself.
class StartProbe
{
public:
    /// Greeting, READY and subscription take a turn or two each.
    static constexpr int enough = 8;

    /// A client that takes longer is not waited for.
    static constexpr std::chrono::seconds longest{30};

    /// A PING is to be sent.
    bool isDue() const { return !mIsUnderWay && mAnswers < enough; }
    void sent() { mIsUnderWay = true; }

    bool isUnderWay() const { return mIsUnderWay; }

    void answered()
    {
        mIsUnderWay = false;
        ++mAnswers;
    }

    /// It does not answer PINGs.
    void giveUp()
    {
        mIsUnderWay = false;
        mAnswers = enough;
    }

    /// Nothing is waited for on its account.
    /// @param asked when the client began to wait
    bool isOver(TimePoint asked, TimePoint now) const { return mAnswers >= enough || now - asked >= longest; }

private:
    int mAnswers = 0;
    bool mIsUnderWay = false;
};

#endif
