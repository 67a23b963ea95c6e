#ifndef BROKER_WIRE_PORT_H
#define BROKER_WIRE_PORT_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <list>
#include <memory>
#include <utility>
#include <vector>

#include "broker/peer/Identities.h"
#include "broker/wire/Connection.h"
#include "broker/wire/Listener.h"
#include "broker/wire/Poller.h"
#include "daemon/Clock.h"

/// A port and its connections. Peer derives from Connection and is constructed from (Descriptor, Kind,
/// TimePoint).
///
/// A connection must complete its handshake within a time limit. When the port is full, a new connection
/// displaces the oldest one with an unfinished handshake. If there is none, the new connection is closed.
template <class Peer>
class Port : public Pollable
{
public:
    static constexpr std::chrono::seconds longestHandshake{5};

    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    /// How many connections one call of accept() should take, so that a crowd of them does not delay the
    /// others.
    static constexpr std::size_t fewAtATime = 16;

    /// Connections are accepted from now on.
    void listen()
    {
        mListener.listen();
        mPoller.add(mListener.descriptor(), EPOLLIN, this);
    }

    /// Accepts up to `count` waiting connections. Returns whether it took them all, so that more may wait.
    /// Connections that have ended meanwhile cost little. For a while, they do not count.
    bool accept(std::size_t count, TimePoint now)
    {
        constexpr std::chrono::milliseconds longestClearing{1};
        const TimePoint endOfClearing = Clock::now() + longestClearing;
        bool outOfDescriptors = false;
        sockaddr_in address{};
        while (count != 0)
        {
            noteFull(now); // each time, as only accepting makes room
            Descriptor socket = mListener.accept(address, outOfDescriptors);
            if (!socket.isOpen())
                break;
            ++mAccepted;
            const bool hasEnded = Connection::hasEnded(socket);
            count -= hasEnded && Clock::now() < endOfClearing ? 0U : 1U;
            if (hasEnded)
                continue;
            const bool hasRoom = mPeers.size() < most();
            if (!hasRoom)
                onFull();
            if ((hasRoom || makeRoom(now)) && !add(std::move(socket), address, now))
                outOfDescriptors = true;
            if (outOfDescriptors)
                break;
        }
        if (outOfDescriptors)
            rest(now);
        return count == 0;
    }

    /// When so many connections waited last that the kernel ignored attempts of others; TimePoint::min() if
    /// that has never been so.
    TimePoint lastFull() const { return mLastFull; }

    /// How many connections were accepted so far, and how many including the waiting ones.
    uint64_t accepted() const { return mAccepted; }
    uint64_t arrived() const { return mAccepted + mListener.waiting(); }

    /// How often the broker has looked at its connections.
    uint64_t looks() const { return mPoller.looks(); }

    /// Closes the connection at once; the object lives until collect().
    void close(Peer& peer)
    {
        onClose(peer);
        noteOpened(peer);
        mIdentities.forget(peer.identity);
        const auto found =
            std::find_if(mPeers.begin(), mPeers.end(), [&](const auto& each) { return each.get() == &peer; });
        peer.closeSocket();
        mClosed.push_back(std::move(*found));
        *found = std::move(mPeers.back());
        mPeers.pop_back();
    }

    /// Calls act(Peer&) for each closed connection and destroys it. Nothing else may point to it any more.
    template <class Act>
    void collect(Act&& act)
    {
        for (const auto& peer : mClosed)
            act(*peer);
        mClosed.clear();
    }

    virtual TimePoint due() const
    {
        const Peer* oldest = oldestOpening();
        return std::min(mRestsUntil,
                        oldest == nullptr ? TimePoint::max() : oldest->acceptedAt() + longestHandshake);
    }

    /// Call this when due() has come.
    virtual void doWhatIsDue(TimePoint now)
    {
        if (mRestsUntil <= now)
        {
            mPoller.change(mListener.descriptor(), EPOLLIN, this);
            mRestsUntil = TimePoint::max();
        }
        while (Peer* oldest = oldestOpening())
        {
            if (oldest->acceptedAt() + longestHandshake > now)
                break;
            letOpen(*oldest, now);
        }
    }

    /// How many of its connections have something to say now; 0: unknown.
    void setCrowd(std::size_t crowd) { mCrowd = crowd; }

    const std::vector<std::unique_ptr<Peer>>& peers() const { return mPeers; }

    std::size_t openPeers() const
    {
        return static_cast<std::size_t>(
            std::count_if(mPeers.begin(), mPeers.end(), [](const auto& peer) { return peer->isOpen(); }));
    }

protected:
    Port(Poller& poller, Identities& identities, uint16_t number, Handshake::Kind kind, int sendBuffer)
        : Pollable(Pollable::Kind::Listener), mPoller(poller), mIdentities(identities),
          mListener(number, sendBuffer), mKind(kind)
    {
    }

    virtual ~Port() = default;

    /// How many connections the port allows.
    virtual std::size_t most() const = 0;

    /// There is no room for another connection.
    virtual void onFull() = 0;

    /// Whether the connection may stay. If not, nothing is read from it.
    virtual bool isAdmitted(Peer& peer) = 0;

    virtual void onAccepted(Peer&) {}

    /// The connection is about to be closed.
    virtual void onClose(Peer&) {}

    /// Reads what the peer has sent.
    virtual void read(Peer& peer, TimePoint now) = 0;

    /// Acts on what the peer has sent.
    virtual void update(Peer& peer) = 0;

    /// How much to read from a connection now. If many have something to say, each has its turn soon.
    std::size_t shareOfTurn(std::size_t fewest, std::size_t most) const
    {
        constexpr std::size_t bytesOfAllTurns = std::size_t{256} * 1024;
        return std::clamp(bytesOfAllTurns / (mCrowd + 1), fewest, most);
    }

    /// Asks the poller for the events that the connection waits for now.
    void poll(Peer& peer, uint32_t what)
    {
        if (peer.polled == what || peer.isDead())
            return;
        mPoller.change(peer.descriptor(), what, &peer);
        peer.polled = what;
    }

    /// The connection has completed its handshake.
    void noteOpened(Peer& peer)
    {
        if (peer.opening != mOpening.end())
            mOpening.erase(peer.opening);
        peer.opening = mOpening.end();
    }

private:
    void noteFull(TimePoint now)
    {
        if (mListener.isFull())
            mLastFull = now;
    }

    // Returns false if there is no memory for the connection, here or in the system.
    bool add(Descriptor socket, const sockaddr_in& address, TimePoint now)
    {
        const std::size_t before = mPeers.size();
        try
        {
            mPeers.push_back(std::make_unique<Peer>(std::move(socket), mKind, now));
            Peer& peer = *mPeers.back();
            peer.opening = mOpening.end(); // the calls below may throw
            peer.identity = mIdentities.identify(peer.descriptor(), address, mListener.address());
            if (!isAdmitted(peer))
            {
                close(peer);
                return true;
            }
            peer.greet();
            peer.opening = mOpening.insert(mOpening.end(), &peer);
            mPoller.add(peer.descriptor(), EPOLLIN, &peer);
            peer.polled = EPOLLIN;
            mPoller.reserve(3 * mPeers.size()); // for three such ports
            onAccepted(peer);
            return true;
        }
        catch (const std::exception&) // from the poller, or std::bad_alloc
        {
            if (mPeers.size() != before)
                close(*mPeers.back());
            return false;
        }
    }

    Peer* oldestOpening() const { return mOpening.empty() ? nullptr : static_cast<Peer*>(mOpening.front()); }

    // The oldest may complete its handshake with bytes already received. Then the next oldest is tried.
    bool makeRoom(TimePoint now)
    {
        while (Peer* oldest = oldestOpening())
        {
            if (!letOpen(*oldest, now))
                return true;
        }
        return false;
    }

    // The peer may complete its handshake with bytes that have waited for long, as the broker may have stood
    // still. Otherwise it is closed. Returns whether it stays.
    bool letOpen(Peer& peer, TimePoint now)
    {
        const std::size_t crowd = std::exchange(mCrowd, 0); // all that has come decides
        read(peer, now);
        mCrowd = crowd;
        if (peer.opening == mOpening.end())
            update(peer);
        else
            close(peer);
        return !peer.isClosed();
    }

    // Without descriptors or memory, the poller would report the waiting connection again and again.
    void rest(TimePoint now)
    {
        constexpr std::chrono::milliseconds pause{100};
        mPoller.change(mListener.descriptor(), 0, this);
        mRestsUntil = now + pause;
    }

    Poller& mPoller;
    Identities& mIdentities;
    Listener mListener;
    uint64_t mAccepted = 0;
    TimePoint mLastFull = TimePoint::min(); // the clock may have begun just now
    std::size_t mCrowd = 0;
    const Handshake::Kind mKind;
    std::vector<std::unique_ptr<Peer>> mPeers;
    std::vector<std::unique_ptr<Peer>> mClosed; // until nothing can point to them
    std::list<Connection*> mOpening;            // with unfinished handshakes, oldest first
    TimePoint mRestsUntil = TimePoint::max();
};

#endif
