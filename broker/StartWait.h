#ifndef BROKER_STARTWAIT_H
#define BROKER_STARTWAIT_H

#include "daemon/Clock.h"

/// How long starting clients wait for one post connection to show that posts can arrive. It shows that by its
/// handshake, and then by the answer to the PING behind its subscription.
///
/// A time limit alone would not do. A busy broker may have looked only once or twice by then, so the
/// connection could not have shown anything.
class StartWait
{
public:
    static constexpr std::chrono::milliseconds longest{50};
    static constexpr int fewestLooks = 5;

    /// Nothing new has come from the connection. Returns whether to give it up.
    bool look(TimePoint now)
    {
        if (mLooks == 0)
            mSince = now;
        ++mLooks;
        mIsOver = mIsOver || (now - mSince >= longest && mLooks >= fewestLooks);
        return mIsOver;
    }

    /// The connection has completed its handshake, which happens once.
    void beginAnew() { *this = StartWait(); }

    bool isOver() const { return mIsOver; }

private:
    TimePoint mSince{};
    int mLooks = 0;
    bool mIsOver = false;
};

#endif
