#ifndef BROKER_STARTUPGATE_H
#define BROKER_STARTUPGATE_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
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
///
/// A Sync can be received when its connection has been closed already. Of such a one nothing is remembered,
/// or nobody would ever take it back; so the memory is bounded by the open connections.
class StartupGate
{
public:
    static constexpr std::chrono::milliseconds settleTime{15};
    static constexpr std::chrono::milliseconds longestHold{1000};

    /// Identifies a request connection: its routing id.
    using Connection = std::string;
    using IsOpen = std::function<bool(const Connection&)>;

    explicit StartupGate(IsOpen isOpen) : mIsOpen(std::move(isOpen)) {}

    /// Whether the Sync of this connection must be held; then it is, from now on. False on a connection that
    /// has been let through before. A client sends no second Sync before it has its answer; who does gets one
    /// answer to all that are held.
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
    bool settled(TimePoint since, TimePoint now) const;
    void remember(const Connection& connection, bool hasPost);
    void dropClosed(std::set<Connection>& connections);

    IsOpen mIsOpen;
    std::map<Connection, TimePoint> mHeld; // since when
    std::set<Connection> mLetThrough;
    std::set<Connection> mWithoutPost; // those of mLetThrough that showed no post connection in time
    TimePoint mLastPostConnected{};
};

#endif
