#ifndef BROKER_STARTGATE_H
#define BROKER_STARTGATE_H

#include <algorithm>
#include <cstddef>

#include "broker/base/Clock.h"

/// Decides when the first "Sync" of a client is answered.
///
/// A client's post socket drops everything until the broker's subscription has reached it, and the socket
/// takes notice of that at most about every 3 ms. So the answer is held until the post connections that were
/// accepted before have shown that they have their subscription, and until the socket will look again.
///
/// A client connects its post socket before its request socket, so its post connection is among those. But a
/// client that was there before the broker connects both anew, at times of their own: it tries each 100 to
/// 200 ms, so at first nobody is answered. There must also be as many post connections as clients. Some open
/// no post connection: as many as were waited for in vain are not waited for again, until there have been
/// fewer of them for a while.
class StartGate
{
public:
    /// The client's socket looks for a subscription when 3,000,000 ticks of its clock have passed.
    static constexpr std::chrono::microseconds settleTime{3500};

    /// How long a missing post connection is waited for. While the broker is young, clients from before it
    /// may still come.
    static constexpr std::chrono::milliseconds patience{50};
    static constexpr std::chrono::milliseconds patienceWhenYoung{500};
    static constexpr std::chrono::seconds youth{2};

    /// Clients from before the broker have connected all their sockets by then.
    static constexpr std::chrono::milliseconds returnTime{250};

    /// How long it is remembered how many post connections are missing for good.
    static constexpr std::chrono::seconds memory{10};

    explicit StartGate(TimePoint brokerStart) : mBrokerStart(brokerStart) {}

    bool isYoung(TimePoint now) const { return now - mBrokerStart < youth; }

    /// Whether it is to be answered now.
    /// @param asked when its "Sync" was read
    /// @param areSubscribed the post connections accepted before that have their subscription
    /// @param clients that have asked for anything; in a young broker, also those that have not asked yet
    /// @param posts post connections with their subscription
    bool opens(TimePoint asked, bool areSubscribed, std::size_t clients, std::size_t posts, TimePoint now)
    {
        if (!areSubscribed || now - asked < settleTime || now - mBrokerStart < returnTime)
            return false;
        const std::size_t missing = clients > posts ? clients - posts : 0;
        forgetSome(missing, now);
        if (missing <= mMissing)
            return true;
        const std::chrono::milliseconds limit = isYoung(asked) ? patienceWhenYoung : patience;
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
    TimePoint mMissed{};      ///< when so many were missing last
};

#endif
