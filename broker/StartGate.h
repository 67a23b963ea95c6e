#ifndef BROKER_STARTGATE_H
#define BROKER_STARTGATE_H

#include <cstddef>

#include "broker/base/Clock.h"

/// Decides when the first "Sync" of a client is answered.
///
/// A client's post socket drops everything until the broker's subscription has reached it, and the socket
/// takes notice of that at most about every 3 ms. So the answer is held until the post connections that were
/// accepted before have shown that they have their subscription, and until the socket will look again.
///
/// A client connects its post socket before its request socket, so its post connection is among those. But a
/// client that was there before the broker connects both anew, at times of their own. So there must also be
/// as many post connections as clients. Whoever opens no post connection is not waited for, after a while.
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

    explicit StartGate(TimePoint brokerStart) : mBrokerStart(brokerStart) {}

    enum class Decision
    {
        Hold,
        Start,
        StartWithoutPosts, ///< it has not shown a post connection in time: it does not count any more
    };

    /// @param asked when its "Sync" was read
    /// @param areSubscribed the post connections accepted before that have their subscription
    /// @param clients that have asked for a start, and have a post connection
    /// @param posts post connections with their subscription
    Decision decide(TimePoint asked, bool areSubscribed, std::size_t clients, std::size_t posts,
                    TimePoint now) const
    {
        if (!areSubscribed || now - asked < settleTime)
            return Decision::Hold;
        if (posts >= clients)
            return Decision::Start;
        const bool isYoung = asked - mBrokerStart < youth;
        const std::chrono::milliseconds limit = isYoung ? patienceWhenYoung : patience;
        return now - asked >= limit ? Decision::StartWithoutPosts : Decision::Hold;
    }

private:
    TimePoint mBrokerStart;
};

#endif
