#ifndef BROKER_STARTGATE_H
#define BROKER_STARTGATE_H

#include <algorithm>
#include <cstddef>

#include "broker/StartWait.h"
#include "daemon/Clock.h"

/// Decides when the first "Sync" of a client is answered.
///
/// A client's post socket drops everything until the broker's subscription has reached it. It looks for the
/// subscription at most about every 3 ms. So the answer is held until the socket looks again, and until every
/// post connection that had arrived by then has confirmed the subscription, except those given up.
///
/// A new client connects its post socket before its request socket, so its post connection is among them. But
/// a client of an earlier broker reconnects both sockets at times of their own, every 100 to 200 ms. So a new
/// broker answers no client for a while.
///
/// There must also be as many post connections as clients. Some clients open none. Post connections that were
/// waited for in vain are not waited for again, until fewer have been missing for a while.
class StartGate
{
public:
    /// The client's socket looks for a subscription when 3,000,000 ticks of its clock have passed.
    static constexpr std::chrono::microseconds settleTime{3500};

    /// How long to wait for a missing post connection. While the broker is young, clients of an earlier
    /// broker may still reconnect.
    static constexpr std::chrono::milliseconds startWait = StartWait::longest;
    static constexpr std::chrono::milliseconds youngStartWait{500};
    static constexpr std::chrono::seconds youth{2};

    /// Clients of an earlier broker have reconnected all their sockets by then.
    static constexpr std::chrono::milliseconds returnPause{250};

    /// How long to remember how many post connections are missing for good.
    static constexpr std::chrono::seconds memory{10};

    explicit StartGate(TimePoint brokerStart) : mBrokerStart(brokerStart) {}

    bool isYoung(TimePoint now) const { return now - mBrokerStart < youth; }

    /// Whether to answer now.
    /// @param asked when the client's "Sync" was read
    /// @param areSubscribed whether the post connections accepted before have the subscription
    /// @param clients that have asked for anything; in a young broker, also those that have not asked yet
    /// @param posts post connections that have the subscription
    bool opens(TimePoint asked, bool areSubscribed, std::size_t clients, std::size_t posts, TimePoint now)
    {
        if (!areSubscribed || now - asked < settleTime || now - mBrokerStart < returnPause)
            return false;
        const std::size_t missing = clients > posts ? clients - posts : 0;
        forgetSome(missing, now);
        if (missing <= mMissing)
            return true;
        const std::chrono::milliseconds limit = isYoung(asked) ? youngStartWait : startWait;
        if (now - asked < limit)
            return false;
        mMissing = missing;
        mMissed = now;
        return true;
    }

private:
    void forgetSome(std::size_t missing, TimePoint now)
    {
        if (missing < mMissing && now - mMissed < memory)
            return;
        mMissing = std::min(mMissing, missing);
        mMissed = now;
    }

    TimePoint mBrokerStart;
    std::size_t mMissing = 0; ///< post connections that were waited for in vain
    TimePoint mMissed{};      ///< when that number was last missing
};

#endif
