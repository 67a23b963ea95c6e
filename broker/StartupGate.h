#ifndef BROKER_STARTUPGATE_H
#define BROKER_STARTUPGATE_H

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "broker/Clock.h"

/// Holds the first SyncAck of each request connection until the same client's posts can arrive.
///
/// A client's post socket drops everything until the broker's subscription has reached it, and no message
/// tells when that is. But each client opens a post connection before its request connection, so a held Sync
/// is answered when as many post connections as request connections have completed their handshakes and some
/// milliseconds have passed since the last of them, in which the subscription travels back and the client's
/// socket takes notice (it looks about every 1 ms, every 3 ms on some machines).
///
/// A program that opens a request connection only would make everybody wait: its Sync is answered after
/// `longestHold`, and it is not counted any more.
class StartupGate
{
public:
    static constexpr std::chrono::milliseconds settleTime{8};
    static constexpr std::chrono::milliseconds longestHold{1000};

    /// So many are held at a time. A client sends no second Sync before it has its answer, so the more come
    /// from one that floods; it gets an answer to the first of them.
    static constexpr std::size_t mostHeld = 10000;

    /// Identifies a request connection: its routing id.
    using Connection = std::string;

    /// Whether the Sync of this connection must be held; then it is, from now on. False on a connection that
    /// has been let through before.
    bool hold(const Connection& connection, TimePoint now);

    /// A post connection has completed its handshake.
    void postConnected(TimePoint now) { mLastPostConnected = now; }

    void requestClosed(const Connection& connection);

    /// The held connections that may be answered now.
    std::vector<Connection> release(int postPeers, int requestPeers, TimePoint now);

    /// Lets everybody through: the broker is shutting down.
    std::vector<Connection> releaseAll();

    bool empty() const { return mHeld.empty(); }

private:
    struct Held
    {
        Connection connection;
        TimePoint since;
    };

    bool settled(const Held& held, TimePoint now) const;

    std::vector<Held> mHeld;
    std::set<Connection> mLetThrough;
    std::set<Connection> mWithoutPost; // those of mLetThrough that showed no post connection in time
    TimePoint mLastPostConnected{};
};

#endif
